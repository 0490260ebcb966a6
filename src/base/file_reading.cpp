#include "base/file_reading.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tarnwick {

namespace {

constexpr std::size_t initialSize = 1 << 16;

}  // namespace

Result<FileDescriptor> openRegularFile(const std::filesystem::path& path, int flags) {
    // O_NONBLOCK, because a FIFO would wait for a writer. O_NOCTTY, because a terminal would become that of the
    // process.
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | flags));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return systemError(errno, path);
    if (!S_ISREG(status.st_mode)) return Error{"not a regular file", 0, path};
    return file;
}

Result<FileDescriptor> openTrustedFile(const std::filesystem::path& path) {
    auto file = openRegularFile(path, O_NOFOLLOW);
    struct stat status {};
    if (!file) return file;
    if (::fstat(file->get(), &status) != 0) return systemError(errno, path);
    if (status.st_uid != 0) return Error{"not owned by root", 0, path};
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return Error{"writable by others", 0, path};
    return file;
}

Result<std::size_t> readAt(int file, std::span<std::uint8_t> buffer, std::uint64_t position) {
    for (;;) {
        const ssize_t count = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(position));
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) return systemError(errno);
    }
}

// Does not use the size of the file: the file may grow while it is read.
Result<std::string> readToEnd(const FileDescriptor& file, std::size_t limit) {
    std::string bytes;
    std::size_t filled = 0;
    while (filled <= limit) {
        if (filled == bytes.size()) bytes.resize(filled + std::max(filled, initialSize));
        const auto count = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemError(errno);
        if (count == 0) {
            bytes.resize(filled);
            return bytes;
        }
        filled += static_cast<std::size_t>(count);
    }
    return systemError(EFBIG);
}

}  // namespace tarnwick
