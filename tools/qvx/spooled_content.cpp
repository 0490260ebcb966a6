#include "spooled_content.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t pieceSize = 8 << 20;
constexpr std::size_t maxExtents = 65536;

// GNU tar reads each extent of a sparse file from the beginning of a block.
constexpr std::uint64_t extentUnit = 512;

}  // namespace

void SpooledContent::restart() {
    data_.clear();
    size_ = 0;
    dataSize_ = 0;
    last_.clear();
    if (pieces_.empty()) return;
    pieces_.clear();
    spool_ = Spool();
}

Status SpooledContent::add(Bytes bytes) {
    extendData(bytes.size());
    return append(bytes);
}

Status SpooledContent::addHole(std::uint64_t length) {
    const std::uint64_t before = std::min(length, (extentUnit - size_ % extentUnit) % extentUnit);
    if (Status added = addZeros(before); !added) return added;
    length -= before;
    if (data_.size() >= maxExtents) return addZeros(length);
    size_ += length - length % extentUnit;
    return addZeros(length % extentUnit);
}

Status SpooledContent::read(const Data& data, const Hole& hole) {
    Cursor cursor;
    std::uint64_t position = 0;
    for (const Extent& extent : data_) {
        Status passed = extent.offset > position ? hole(extent.offset - position) : Status();
        if (passed) passed = readExtent(cursor, extent.length, data);
        if (!passed) return passed;
        position = extent.end();
    }
    return position < size_ ? hole(size_ - position) : Status();
}

Status SpooledContent::append(Bytes bytes) {
    while (!bytes.empty()) {
        const std::size_t length = std::min(bytes.size(), pieceSize - last_.size());
        last_.insert(last_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        bytes = bytes.subspan(length);
        if (last_.size() < pieceSize) continue;
        const auto position = spool_.append(last_);
        if (!position) return position.error();
        pieces_.push_back(*position);
        last_.clear();
    }
    return {};
}

Status SpooledContent::addZeros(std::uint64_t length) {
    static constexpr std::array<std::uint8_t, 65536> zeros{};
    for (std::uint64_t piece = 0; length > 0; length -= piece) {
        piece = std::min<std::uint64_t>(length, zeros.size());
        if (Status added = add(Bytes(zeros).first(static_cast<std::size_t>(piece))); !added) return added;
    }
    return {};
}

void SpooledContent::extendData(std::uint64_t length) {
    if (data_.empty() || data_.back().end() != size_) data_.push_back({size_, 0});
    data_.back().length += length;
    dataSize_ += length;
    size_ += length;
}

Status SpooledContent::nextPiece(Cursor& cursor) const {
    const bool spooled = cursor.piece < pieces_.size();
    if (spooled)
        if (Status read = spool_.read(pieces_[cursor.piece], cursor.buffer); !read) return read;
    ++cursor.piece;
    cursor.left = spooled ? Bytes(cursor.buffer) : Bytes(last_);
    return {};
}

Status SpooledContent::readExtent(Cursor& cursor, std::uint64_t length, const Data& data) const {
    while (length > 0) {
        if (cursor.left.empty())
            if (Status read = nextPiece(cursor); !read) return read;
        const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(length, cursor.left.size()));
        if (Status passed = data(cursor.left.first(piece)); !passed) return passed;
        cursor.left = cursor.left.subspan(piece);
        length -= piece;
    }
    return {};
}

}  // namespace tarnwick::qvx
