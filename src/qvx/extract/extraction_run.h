// What the parts of one extraction share: the way to report problems, and the question whether to stop.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>

#include "base/error.h"

namespace tarnwick::qvx {

struct ExtractOptions {
    bool keepIncomplete = false;  // keep the part that was read of an abandoned file as NAME.incomplete

    // Receives each problem; the subject is the path of the entry. Threads call it, but never two at the same time.
    std::function<void(const Error&)> report = [](const Error&) {};

    // Whether the extraction is to stop. Threads call it at the same time.
    std::function<bool()> interrupted = [] { return false; };
};

// Every function may be called by several threads at the same time.
class ExtractionRun {
public:
    explicit ExtractionRun(ExtractOptions options) : options_(std::move(options)) {}

    // Reports a problem that leaves the content of the entry as it should be.
    void warn(const Error& problem) {
        const std::lock_guard lock(mutex_);
        options_.report(problem);
    }

    // Reports a problem because of which the extraction counts as failed.
    void fail(const Error& problem) {
        failed_ = true;
        warn(problem);
    }

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] bool interrupted() const { return options_.interrupted(); }
    [[nodiscard]] bool keepsIncomplete() const { return options_.keepIncomplete; }

private:
    const ExtractOptions options_;
    std::mutex mutex_;
    std::atomic<bool> failed_ = false;
};

}  // namespace tarnwick::qvx
