#include "qvx/read/free_space.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxReserve = std::uint64_t{1} << 30;
constexpr std::uint64_t reserveDivisor = 20;
constexpr std::uint64_t maxUnchecked = std::uint64_t{16} << 20;

}  // namespace

Status FreeSpace::charge(int file, std::uint64_t bytes) {
    if (bytes > unchecked_) {
        struct statvfs status {};
        if (fstatvfs(file, &status) != 0) return systemError(errno);
        const std::uint64_t total = std::uint64_t{status.f_blocks} * status.f_frsize;
        const std::uint64_t free = std::uint64_t{status.f_bavail} * status.f_frsize;
        const std::uint64_t reserve = std::min(total / reserveDivisor, maxReserve);
        // A file system without a size, in memory, has no blocks.
        if (total != 0 && free < reserve + bytes)
            return Error{"less than " + std::to_string(reserve) + " bytes would be free on the disk"};
        // Half of the rest: other programs write too, and the kernel counts some blocks only later.
        unchecked_ = bytes + (total == 0 ? maxUnchecked : std::min(maxUnchecked, (free - reserve - bytes) / 2));
    }
    unchecked_ -= bytes;
    return {};
}

}  // namespace tarnwick::qvx
