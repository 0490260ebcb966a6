#include "qvx/read/archive_file.h"

#include <algorithm>
#include <array>

namespace tarnwick::qvx {

namespace {

// A reader that continues is this far ahead at most, and the hints end at multiples of a step, so that a server gets
// few large requests.
constexpr std::uint64_t aheadStep = 4 << 20;
constexpr std::uint64_t aheadSteps = 4;

}  // namespace

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

void ArchiveFile::willRead(std::uint64_t begin, std::uint64_t end) const {
    end = std::min(end, size());
    if (begin < end) source_->willRead(begin, end);
}

void ArchiveFile::willReadFrom(std::uint64_t position) const {
    if (position < size()) willRead(position, (position / aheadStep + aheadSteps) * aheadStep);
}

Status ArchiveFile::checkBlocksEnd(std::uint64_t position) const {
    if (!isStream()) return position == blocksEnd_ ? Status() : Error{"there are bytes after the last block"};
    std::vector<std::uint8_t> footer(footer_.size());
    if (Status read = this->read(position, footer); !read) return Error{"the archive is cut: its end is not a footer"};
    if (footer != footer_) return Error{"the footer is damaged, or not a copy of the header"};
    std::array<std::uint8_t, 1> more{};
    if (this->read(position + footer.size(), more)) return Error{"bytes follow the footer"};
    return {};
}

}  // namespace tarnwick::qvx
