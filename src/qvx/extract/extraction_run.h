// What the parts of one extraction share: the options of the caller, its report of problems, and whether to stop.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>

#include "base/error.h"

namespace tarnwick::qvx {

struct ExtractOptions {
    bool keepIncomplete = false;  // keep the part that was read of an abandoned file as NAME.incomplete

    // Receives each problem; the subject is the path of the entry. Several threads call it, one at a time. It must not
    // throw.
    std::function<void(const Error&)> report = [](const Error&) {};

    // Whether to stop early. Several threads call it, also at the same time.
    std::function<bool()> interrupted = [] { return false; };
};

// Any thread may call any function at any time.
class ExtractionRun {
public:
    explicit ExtractionRun(ExtractOptions options) : options_(std::move(options)) {}

    // Reports a problem that does not make the extraction fail: metadata that could not be set.
    void warn(const Error& problem) {
        const std::lock_guard lock(mutex_);
        options_.report(problem);
    }

    // Reports a problem that makes the extraction fail.
    void fail(const Error& problem) {
        failed_ = true;
        warn(problem);
    }

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] bool interrupted() const { return options_.interrupted(); }
    [[nodiscard]] bool keepsIncomplete() const { return options_.keepIncomplete; }

private:
    const ExtractOptions options_;
    std::mutex mutex_;  // for calls of options_.report
    std::atomic<bool> failed_ = false;
};

}  // namespace tarnwick::qvx
