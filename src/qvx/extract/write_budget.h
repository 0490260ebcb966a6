// How much an extraction may still write.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "qvx/read/free_space.h"

namespace tarnwick::qvx {

// Any thread may call any function at any time.
class WriteBudget {
public:
    // `directory` is an open directory, which must outlive this object. At most `limit` bytes are written to it. Unless
    // `fillsDisk` is set, 5 % of its file system remain free, but not more than 1 GiB.
    WriteBudget(int directory, std::optional<std::uint64_t> limit, bool fillsDisk)
        : directory_(directory), left_(limit), limit_(limit), fillsDisk_(fillsDisk) {}

    // Counts bytes that will be written now. Fails if they may not be written.
    Status charge(std::uint64_t bytes);

    // The same for bytes that are not part of what is extracted, and do not count for the limit.
    Status chargeSpace(std::uint64_t bytes);

private:
    Status checkSpace(std::uint64_t bytes);

    const int directory_;
    std::mutex mutex_;  // for left_ and space_
    std::optional<std::uint64_t> left_;
    const std::optional<std::uint64_t> limit_;
    const bool fillsDisk_;
    FreeSpace space_;
};

}  // namespace tarnwick::qvx
