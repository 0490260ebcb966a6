#include "qvx/format/entry_codec.h"

#include <algorithm>
#include <limits>

namespace tarnwick::qvx {

namespace {

// Bit i is set when field i is present, so the order of the arguments is part of the format.
template <typename... Fields>
std::uint8_t presentBits(const Fields&... fields) {
    unsigned bits = 0;
    unsigned bit = 0;
    ((bits |= static_cast<unsigned>(fields.has_value()) << bit++), ...);
    return static_cast<std::uint8_t>(bits);
}

// A number that must fit the type of its field.
template <typename Number>
Number narrow(WireReader& in, std::uint64_t largest = std::numeric_limits<Number>::max()) {
    const std::uint64_t number = in.varint();
    if (number > largest) in.fail();
    return static_cast<Number>(number);
}

template <typename Number>
void putOptional(WireWriter& out, const std::optional<Number>& number) {
    if (number) out.varint(*number);
}

EntryType checkedType(WireReader& in, unsigned type) {
    if (type < 1 || type > 3) in.fail();
    return static_cast<EntryType>(type);
}

// A count of items that take at least `minItemSize` bytes each. A count that the rest of the input cannot hold is
// refused before any memory is allocated for it.
std::size_t takeCount(WireReader& in, std::size_t minItemSize) {
    const std::uint64_t count = in.varint();
    if (count > in.left() / minItemSize) in.fail();
    return in.ok() ? static_cast<std::size_t>(count) : 0;
}

std::vector<ExtendedAttribute> takeAttributes(WireReader& in) {
    constexpr std::size_t maxAttributes = 65536;  // a list of names from the kernel holds fewer
    const std::size_t count = takeCount(in, 3);
    if (count > maxAttributes) in.fail();
    std::vector<ExtendedAttribute> attributes(in.ok() ? count : 0);
    for (auto& attribute : attributes) {
        attribute.name = in.text();
        attribute.value = in.text();
        if (attribute.name.empty() || attribute.name.find('\0') != std::string::npos) in.fail();
    }
    return attributes;
}

// For example "user:1000:r-x". A name instead of the number could mean another user on the machine that restores, and
// would need a lookup.
bool isAccessListLine(std::string_view line) {
    const std::size_t id = line.find(':') + 1;
    const std::size_t rights = line.find(':', id) + 1;
    if (id == 0 || rights == 0 || line.size() - rights != 3) return false;
    constexpr std::string_view tags[] = {"user:", "group:", "mask:", "other:"};
    const auto isNoDigit = [](char c) { return c < '0' || c > '9'; };
    return std::ranges::find(tags, line.substr(0, id)) != std::end(tags) &&
           std::ranges::none_of(line.substr(id, rights - 1 - id), isNoDigit) &&
           line.find_first_not_of("rwx-", rights) == std::string_view::npos;
}

std::string takeAccessList(WireReader& in) {
    const std::string_view list = in.text();
    for (std::size_t begin = 0; begin < list.size();) {
        const std::size_t end = std::min(list.find('\n', begin), list.size());
        if (!isAccessListLine(list.substr(begin, end - begin))) in.fail();
        begin = end + 1;
    }
    return std::string(list);
}

AccessLists takeAccessLists(WireReader& in) {
    AccessLists lists;
    lists.access = takeAccessList(in);
    lists.defaultList = takeAccessList(in);
    return lists;
}

// An offset is stored as the distance from the end of the previous extent, so no input decodes to overlapping extents.
void putExtents(WireWriter& out, const std::vector<Extent>& extents) {
    out.varint(extents.size());
    std::uint64_t end = 0;
    for (const Extent& extent : extents) {
        out.varint(extent.offset - end);
        out.varint(extent.length);
        end = extent.end();
    }
}

std::vector<Extent> takeExtents(WireReader& in) {
    const std::size_t count = takeCount(in, 2);
    if (count > maxUnreadableExtents) in.fail();
    std::vector<Extent> extents(in.ok() ? count : 0);
    std::uint64_t end = 0;
    for (Extent& extent : extents) {
        const std::uint64_t gap = in.varint();
        extent.length = in.varint();
        const bool adjacent = gap == 0 && end > 0;
        if (adjacent || extent.length == 0 || gap > maxContentSize - end || extent.length > maxContentSize - end - gap)
            in.fail();
        if (!in.ok()) break;
        extent.offset = end + gap;
        end = extent.end();
    }
    return extents;
}

std::size_t sharedLength(std::string_view a, std::string_view b) {
    return static_cast<std::size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

bool isPathOf(EntryType type, std::string_view path) {
    return isEntryPath(path) && (!path.empty() || type == EntryType::directory);
}

bool isZero(Bytes bytes) {
    return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

// Turns `entry` from the previous entry into the next one.
void takeIndexEntry(WireReader& in, IndexEntry& entry) {
    const std::uint64_t step = in.varint();
    if (step > std::numeric_limits<std::uint64_t>::max() - entry.block) in.fail();
    entry.block += step;
    entry.offset = narrow<std::uint64_t>(in, blockSize - 1);
    const unsigned type = in.byte();
    entry.type = checkedType(in, type & ~unsigned{indexIncomplete});
    entry.incomplete = type & indexIncomplete;
    const auto shared = narrow<std::uint64_t>(in, entry.path.size());
    if (in.ok()) entry.path.resize(static_cast<std::size_t>(shared));
    entry.path += in.text();
    entry.mode = narrow<std::uint16_t>(in, 07777);
    entry.userId = narrow<std::uint32_t>(in);
    entry.groupId = narrow<std::uint32_t>(in);
    entry.size = in.varint();
    entry.modifiedSeconds = wrappingAdd(entry.modifiedSeconds, in.signedVarint());
    if (!isPathOf(entry.type, entry.path)) in.fail();
}

}  // namespace

void encodeRecordHeader(const RecordHeader& header, std::uint8_t* out) {
    out[0] = static_cast<std::uint8_t>(static_cast<unsigned>(header.type) | (header.continues ? recordContinues : 0U));
    putLittleEndian<3>(out + 1, header.length);
}

RecordCursor::RecordCursor(Bytes block, std::size_t offset) : block_(block), offset_(std::min(offset, block.size())) {}

std::optional<Record> RecordCursor::next() {
    while (!damaged_ && block_.size() - offset_ >= recordHeaderSize) {
        const std::uint8_t* header = block_.data() + offset_;
        const std::uint8_t type = header[0] & ~recordContinues & 0xff;
        const auto length = static_cast<std::size_t>(getLittleEndian<3>(header + 1));
        Record record{static_cast<RecordType>(type), (header[0] & recordContinues) != 0, {}};
        // Only these types may continue in the next block, and only when they fill this one; padding must end the
        // block.
        const bool splits =
            record.type == RecordType::end || record.type == RecordType::index || record.type == RecordType::root;
        const std::size_t left = block_.size() - offset_ - recordHeaderSize;
        if (type > static_cast<std::uint8_t>(RecordType::trailer) || length > left ||
            (record.continues && (!splits || left - length >= recordHeaderSize)) ||
            (record.type == RecordType::pad && length != left)) {
            damaged_ = true;
            break;
        }
        record.payload = block_.subspan(offset_ + recordHeaderSize, length);
        offset_ += recordHeaderSize + length;
        if (record.type != RecordType::pad) return record;
        damaged_ = !isZero(record.payload);
    }
    damaged_ = damaged_ || !isZero(block_.subspan(offset_));
    return std::nullopt;
}

bool isEntryPath(std::string_view path) {
    if (path.size() > maxPathLength || path.find('\0') != std::string_view::npos) return false;
    if (path.empty()) return true;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const auto component = path.substr(begin, end - begin);
        if (component.empty() || component == "." || component == "..") return false;
        begin = end + 1;
    }
    return true;
}

void encodeEntryHead(const EntryHead& head, std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    out.varint(head.number);
    out.byte(static_cast<std::uint8_t>(head.type));
    out.text(head.path);
    out.byte(presentBits(head.userId, head.groupId, head.mode, head.flags, head.modified, head.changed, head.created));
    putOptional(out, head.userId);
    putOptional(out, head.groupId);
    putOptional(out, head.mode);
    putOptional(out, head.flags);
    const std::int64_t base = head.modified.value_or(0);
    if (head.modified) out.fixed64(static_cast<std::uint64_t>(base));
    if (head.changed) out.signedVarint(wrappingSubtract(*head.changed, base));
    if (head.created) out.signedVarint(wrappingSubtract(*head.created, base));
}

std::optional<EntryHead> decodeEntryHead(Bytes payload) {
    WireReader in(payload);
    EntryHead head;
    head.number = in.varint();
    head.type = checkedType(in, in.byte());
    head.path = in.text();
    const std::uint8_t present = in.byte();
    if (present & 0x01) head.userId = narrow<std::uint32_t>(in);
    if (present & 0x02) head.groupId = narrow<std::uint32_t>(in);
    if (present & 0x04) head.mode = narrow<std::uint16_t>(in, 07777);
    if (present & 0x08) head.flags = narrow<std::uint32_t>(in);
    if (present & 0x10) head.modified = static_cast<std::int64_t>(in.fixed64());
    const std::int64_t base = head.modified.value_or(0);
    if (present & 0x20) head.changed = wrappingAdd(base, in.signedVarint());
    if (present & 0x40) head.created = wrappingAdd(base, in.signedVarint());
    if (!in.ok() || !in.atEnd() || (present & 0x80) || !isPathOf(head.type, head.path)) return std::nullopt;
    return head;
}

void encodeEntryTail(const EntryTail& tail, std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    out.byte(static_cast<std::uint8_t>(presentBits(tail.digest, tail.totals, tail.contentOf, tail.linkOf,
                                                   tail.attributes, tail.accessLists, tail.unreadable) |
                                       (tail.attributesOmitted ? 0x80U : 0U)));
    if (tail.digest) out.bytes(*tail.digest);
    if (tail.totals) out.varint(tail.totals->size);
    if (tail.totals) out.varint(tail.totals->holes);
    putOptional(out, tail.contentOf);
    putOptional(out, tail.linkOf);
    if (tail.attributes) {
        out.varint(tail.attributes->size());
        for (const auto& attribute : *tail.attributes) {
            out.text(attribute.name);
            out.text(attribute.value);
        }
    }
    if (tail.accessLists) {
        out.text(tail.accessLists->access);
        out.text(tail.accessLists->defaultList);
    }
    if (tail.unreadable) putExtents(out, *tail.unreadable);
}

std::optional<EntryTail> decodeEntryTail(Bytes payload) {
    if (payload.size() > maxEndLength) return std::nullopt;
    WireReader in(payload);
    EntryTail tail;
    const std::uint8_t present = in.byte();
    if (present & 0x01) {
        const Bytes digest = in.bytes(Digest{}.size());
        std::copy(digest.begin(), digest.end(), tail.digest.emplace().begin());
    }
    if (present & 0x02) {
        const std::uint64_t size = in.varint();
        tail.totals = SparseTotals{size, in.varint()};
    }
    if (present & 0x04) tail.contentOf = in.varint();
    if (present & 0x08) tail.linkOf = in.varint();
    if (present & 0x10) tail.attributes = takeAttributes(in);
    if (present & 0x20) tail.accessLists = takeAccessLists(in);
    if (present & 0x40) tail.unreadable = takeExtents(in);
    tail.attributesOmitted = present & 0x80;
    if (!in.ok() || !in.atEnd()) return std::nullopt;
    return tail;
}

std::optional<std::uint64_t> decodeHole(Bytes payload) {
    WireReader in(payload);
    const std::uint64_t length = in.varint();
    if (!in.ok() || !in.atEnd() || length == 0) return std::nullopt;
    return length;
}

void IndexPartEncoder::add(const IndexEntry& entry) {
    WireWriter out(body_);
    const std::size_t shared = sharedLength(before_.path, entry.path);
    out.varint(entry.block - before_.block);
    out.varint(entry.offset);
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
    if (count_ == 0 || first_ > std::numeric_limits<std::uint64_t>::max() - count_) in_.fail();
}

const IndexEntry* IndexPartDecoder::next() {
    if (!in_.ok()) return nullptr;
    if (given_ == count_) {
        if (!in_.atEnd()) in_.fail();
        return nullptr;
    }
    takeIndexEntry(in_, entry_);
    ++given_;
    return in_.ok() ? &entry_ : nullptr;
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

std::optional<ArchiveRoot> decodeRoot(Bytes payload) {
    WireReader in(payload);
    ArchiveRoot root;
    root.entries = in.varint();
    root.parts.resize(takeCount(in, 3));
    for (auto& part : root.parts) {
        part.first = in.varint();
        part.block = in.varint();
        part.offset = narrow<std::uint64_t>(in, blockSize - 1);
    }
    root.sealedLengths.resize(takeCount(in, 1));
    for (auto& length : root.sealedLengths) {
        length = narrow<std::uint32_t>(in, blockSize + tagSize);
        if (length <= tagSize) in.fail();
    }
    if (!in.ok() || !in.atEnd()) return std::nullopt;
    return root;
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
