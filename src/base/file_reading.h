// Reads files, also from folders in which others may be able to write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "base/error.h"
#include "base/handle.h"

namespace tarnwick {

// Opens a file for reading if it is a regular file; does not block on a FIFO in its place. `flags` are added to those
// of open(2).
Result<FileDescriptor> openRegularFile(const std::filesystem::path& path, int flags = 0);

// For a file that decides what root does: opens it only if it is a regular file, not itself a link, owned by root and
// not writable by group or others.
Result<FileDescriptor> openTrustedFile(const std::filesystem::path& path);

// pread() that is repeated after EINTR. Returns the count.
Result<std::size_t> readAt(int file, std::span<std::uint8_t> buffer, std::uint64_t position);

// The rest of an open file. More than `limit` bytes are a failure with the code EFBIG.
Result<std::string> readToEnd(const FileDescriptor& file, std::size_t limit);

}  // namespace tarnwick
