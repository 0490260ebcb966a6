// What the parts of one extraction share: the options of the caller, its report of problems, and whether to stop.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "base/error.h"
#include "qvx/extract/write_budget.h"

namespace tarnwick::qvx {

struct ExtractOptions {
    bool keepIncomplete = false;  // keep the part that was read of an abandoned file as NAME.incomplete

    // Restore owners, set-id and sticky bits, inode flags and all attributes. For root only: anybody can make an
    // archive that has a program of root with the set-user-id bit.
    bool preserve = false;

    std::optional<std::uint64_t> limit = std::nullopt;  // bytes that may be written; see ExtractionRun::charge()
    bool fillsDisk = false;                             // leave nothing of the file system free

    // Receives each problem; the subject is the path of the entry. Several threads call it, one at a time. It must not
    // throw.
    std::function<void(const Error&)> report = [](const Error&) {};

    // Whether to stop early. Several threads call it, also at the same time.
    std::function<bool()> interrupted = [] { return false; };
};

// Metadata that is restored only with ExtractOptions::preserve.
enum class Privilege : unsigned { owner, specialBits, attribute, flag };

// Any thread may call any function at any time.
class ExtractionRun {
public:
    // `directory` is the destination, which must outlive this object. Reads the umask by changing it for a moment: no
    // other thread may create files meanwhile.
    ExtractionRun(ExtractOptions options, int directory);

    // Reports a problem that does not make the extraction fail: metadata that could not be set.
    void warn(const Error& problem) {
        const std::lock_guard lock(mutex_);
        options_.report(problem);
    }

    // Reports a problem that makes the extraction fail.
    void fail(const Error& problem) {
        failed_ = true;
        if (problem.code != ECANCELED) warn(problem);
    }

    // Counts data that will be written now: bytes of contents, and at least 4096 for each file, directory and link.
    // Fails if they exceed the limit or the disk. This function reports the failure and interrupts the extraction, so
    // the caller does not report it again.
    Status charge(std::uint64_t bytes) { return stopIfFailed(budget_.charge(bytes)); }
    static constexpr std::uint64_t minCharge = 4096;

    // The same for temporary data, which do not count for the limit.
    Status chargeSpace(std::uint64_t bytes) { return stopIfFailed(budget_.chargeSpace(bytes)); }

    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] bool interrupted() const { return stopped_ || options_.interrupted(); }
    [[nodiscard]] bool keepsIncomplete() const { return options_.keepIncomplete; }

    [[nodiscard]] bool preserves() const { return options_.preserve; }
    [[nodiscard]] mode_t umask() const { return umask_; }  // 0 with `preserve`

    // Who owns new files.
    [[nodiscard]] uid_t user() const { return user_; }
    [[nodiscard]] gid_t group() const { return group_; }

    // Records that an entry has such metadata, and that it is not restored.
    void leaveOut(Privilege privilege) { leftOut_ |= 1U << static_cast<unsigned>(privilege); }
    [[nodiscard]] std::string leftOut() const;  // "owners, inode flags"; empty for none

private:
    Status stopIfFailed(const Status& charged);

    const ExtractOptions options_;
    const mode_t umask_;
    const uid_t user_ = geteuid();
    const gid_t group_ = getegid();
    std::mutex mutex_;  // for calls of options_.report
    WriteBudget budget_;
    std::atomic<bool> failed_ = false;
    std::atomic<bool> stopped_ = false;
    std::atomic<unsigned> leftOut_ = 0;  // bits by Privilege
};

}  // namespace tarnwick::qvx
