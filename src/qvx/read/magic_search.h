// Searches an archive file for magic bytes.
#pragma once

#include <vector>

#include "qvx/read/archive_file.h"

namespace tarnwick::qvx {

// For one thread.
class MagicSearch {
public:
    // Both arguments must outlive the object.
    MagicSearch(const ArchiveFile& file, Bytes magic) : file_(file), magic_(magic) {}

    // Where the next magic at or after `position` is, or the size of the file if there is none. Parts of the file that
    // cannot be read are skipped.
    std::uint64_t find(std::uint64_t position);

private:
    const ArchiveFile& file_;
    Bytes magic_;
    std::vector<std::uint8_t> window_;  // a part of the file; the search continues in it
    std::uint64_t windowAt_ = 0;
};

}  // namespace tarnwick::qvx
