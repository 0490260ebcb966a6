// Reading whole files that may stand where others can write.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "base/handle.h"

namespace tarnwick {

// Opens a regular file for reading and nothing else: a FIFO in its place does not hold the run for ever. `flags` are
// further ones of open(2). None on failure.
FileDescriptor openRegularFile(const std::filesystem::path& path, int flags = 0);

// For a file that decides what root does: it counts only if it is a regular file, itself not a link, owned by root and
// not writable by group or others.
FileDescriptor openTrustedFile(const std::filesystem::path& path);

// The rest of an open file; nothing at an error, and when there are more than `limit` bytes.
std::optional<std::string> readToEnd(const FileDescriptor& file, std::size_t limit);

}  // namespace tarnwick
