#include "qvx/format/index_codec.h"

#include <algorithm>
#include <limits>

#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

namespace {

// A time is a count of nanoseconds with 64 bits.
constexpr std::int64_t maxSeconds = std::numeric_limits<std::int64_t>::max() / 1000000000;
constexpr std::int64_t minSeconds = -maxSeconds - 1;

std::size_t sharedLength(std::string_view a, std::string_view b) {
    return static_cast<std::size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

// Turns `path` from the previous path into the next one. It has only one form: what the two share is not repeated.
void readPath(WireReader& in, std::string& path) {
    const auto shared = static_cast<std::size_t>(in.number<std::uint64_t>(path.size()));
    const std::string_view rest = in.text();
    if (!in.ok()) return;
    if (shared < path.size() && rest.starts_with(path[shared])) in.fail();
    path.resize(shared);
    path += rest;
}

bool isSizeOf(const IndexEntry& entry) {
    if (entry.type == EntryType::file) return true;
    if (entry.type == EntryType::directory) return entry.size == 0;
    return entry.size <= maxTargetLength && (entry.size > 0 || entry.incomplete);
}

// Turns `entry` from the previous entry into the next one.
void readIndexEntry(WireReader& in, IndexEntry& entry) {
    // An unsigned sum: a hostile difference may wrap around, and is then too large.
    entry.block += static_cast<std::uint64_t>(in.signedVarint());
    if (entry.block >= maxBlocks) return in.fail();
    entry.offset = in.number<std::uint64_t>(blockSize - 1);
    entry.span = in.number<std::uint64_t>(maxBlocks - 1 - entry.block);
    const unsigned type = in.byte();
    entry.type = readEntryType(in, type & ~unsigned{indexIncomplete});
    entry.incomplete = type & indexIncomplete;
    readPath(in, entry.path);
    entry.mode = in.number<std::uint16_t>(maxMode);
    entry.userId = in.number<std::uint32_t>(maxId);
    entry.groupId = in.number<std::uint32_t>(maxId);
    entry.size = in.number<std::uint64_t>(maxContentSize);
    entry.modifiedSeconds = wrappingAdd(entry.modifiedSeconds, in.signedVarint());
    if (entry.modifiedSeconds < minSeconds || entry.modifiedSeconds > maxSeconds) in.fail();
    if (!isPathOf(entry.type, entry.path) || !isSizeOf(entry)) in.fail();
}

bool follows(const IndexPartPlace& part, const IndexPartPlace& before) {
    const bool coversEnough = part.first >= std::uint64_t{before.first} + minIndexPartEntries;
    return coversEnough && std::pair(part.block, part.offset) > std::pair(before.block, before.offset);
}

}  // namespace

void IndexPartEncoder::add(const IndexEntry& entry) {
    WireWriter out(body_);
    const std::size_t shared = sharedLength(before_.path, entry.path);
    out.signedVarint(static_cast<std::int64_t>(entry.block - before_.block));
    out.varint(entry.offset);
    out.varint(entry.span);
    out.byte(static_cast<std::uint8_t>(static_cast<unsigned>(entry.type) | (entry.incomplete ? indexIncomplete : 0U)));
    out.varint(shared);
    out.text(std::string_view(entry.path).substr(shared));
    out.varint(entry.mode);
    out.varint(entry.userId);
    out.varint(entry.groupId);
    out.varint(entry.size);
    out.signedVarint(wrappingSubtract(entry.modifiedSeconds, before_.modifiedSeconds));
    before_ = entry;
    ++count_;
}

void IndexPartEncoder::finish(std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    out.varint(first_);
    out.varint(count_);
    out.bytes(body_);
    first_ += count_;
    count_ = 0;
    body_.clear();
    // A reader decodes each part without those before it.
    before_ = {};
}

IndexPartDecoder::IndexPartDecoder(Bytes payload)
    : in_(payload.size() > maxIndexLength ? Bytes{} : payload), first_(in_.varint()), count_(in_.varint()) {
    if (count_ == 0 || count_ > maxEntries || first_ > maxEntries - count_) in_.fail();
}

const IndexEntry* IndexPartDecoder::next() {
    if (!in_.ok()) return nullptr;
    if (returned_ == count_) {
        if (!in_.atEnd()) in_.fail();
        return nullptr;
    }
    readIndexEntry(in_, entry_);
    ++returned_;
    return in_.ok() ? &entry_ : nullptr;
}

bool isBefore(const IndexEntry& entry, const RecordPlace& part) {
    const std::pair begin(entry.block, entry.offset);
    return begin < std::pair<std::uint64_t, std::uint64_t>(part.block, part.offset) &&
           entry.block + entry.span <= part.block;
}

void encodeRoot(const ArchiveRoot& root, std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    out.varint(root.entries);
    out.varint(root.parts.size());
    for (const auto& part : root.parts) {
        out.varint(part.first);
        out.varint(part.block);
        out.varint(part.offset);
    }
    out.varint(root.sealedLengths.size());
    for (const auto length : root.sealedLengths) out.varint(length);
}

RootDecoder::RootDecoder(Bytes payload)
    : in_(payload), entries_(in_.number<std::uint64_t>(maxEntries)), left_(in_.varint()) {
    if ((left_ == 0) != (entries_ == 0)) in_.fail();
}

std::optional<IndexPartPlace> RootDecoder::nextPart() {
    if (!in_.ok() || !inParts_) return std::nullopt;
    if (left_ == 0) {
        inParts_ = false;
        left_ = in_.varint();
        return std::nullopt;
    }
    IndexPartPlace part;
    part.first = in_.number<std::uint32_t>();
    part.block = in_.number<std::uint32_t>(maxBlocks - 1);
    part.offset = in_.number<std::uint32_t>(blockSize - 1);
    if (part.first >= entries_ || !(before_ ? follows(part, *before_) : part.first == 0)) in_.fail();
    if (!in_.ok()) return std::nullopt;
    before_ = part;
    --left_;
    return part;
}

std::optional<std::uint32_t> RootDecoder::nextLength() {
    if (!in_.ok() || inParts_ || left_ == 0) return std::nullopt;
    const auto length = in_.number<std::uint32_t>(blockSize + tagSize);
    if (length <= tagSize) in_.fail();
    if (!in_.ok()) return std::nullopt;
    --left_;
    return length;
}

std::array<std::uint8_t, trailerSize> encodeTrailer(const Trailer& trailer) {
    std::array<std::uint8_t, trailerSize> bytes{};
    putLittleEndian<8>(bytes.data(), trailer.rootPosition);
    putLittleEndian<8>(bytes.data() + 8, trailer.rootSequence);
    putLittleEndian<8>(bytes.data() + 16, trailer.entries);
    putLittleEndian<8>(bytes.data() + 24, trailer.blocks);
    return bytes;
}

std::optional<Trailer> decodeTrailer(Bytes payload) {
    if (payload.size() != trailerSize) return std::nullopt;
    return Trailer{getLittleEndian<8>(payload.data()), getLittleEndian<8>(payload.data() + 8),
                   getLittleEndian<8>(payload.data() + 16), getLittleEndian<8>(payload.data() + 24)};
}

}  // namespace tarnwick::qvx
