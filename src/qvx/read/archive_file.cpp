#include "qvx/read/archive_file.h"

#include <algorithm>

namespace tarnwick::qvx {

void ArchiveFile::setBlocks(std::uint64_t begin, std::uint64_t end) {
    blocksBegin_ = begin;
    blocksEnd_ = std::max(begin, end);
}

Status ArchiveFile::read(std::uint64_t position, MutableBytes bytes) const {
    // A position from a hostile archive may be anything.
    if (position > size() || bytes.size() > size() - position) return Error{"the archive ends here"};
    bytesRead_ += bytes.size();
    return source_->read(position, bytes);
}

}  // namespace tarnwick::qvx
