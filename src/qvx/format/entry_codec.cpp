#include "qvx/format/entry_codec.h"

#include <algorithm>

#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

namespace {

bool isKnown(RecordType type) { return type <= RecordType::trailer || isAddition(type); }

// An entry whose content is in another one has none itself, and its fields describe none.
bool isConsistent(const EntryTail& tail) {
    const bool unreadable = tail.unreadable && !tail.unreadable->empty();
    return tail.contentOf ? !tail.digest && !tail.totals && !unreadable : !tail.hardLink;
}

bool isZero(Bytes bytes) {
    return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
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
        if (!isKnown(record.type) || length > left ||
            (record.continues && (!splits || left - length >= recordHeaderSize)) ||
            (record.type == RecordType::pad && length != left)) {
            damaged_ = true;
            break;
        }
        record.payload = block_.subspan(offset_ + recordHeaderSize, length);
        offset_ += recordHeaderSize + length;
        if (record.type == RecordType::pad) damaged_ = !isZero(record.payload);
        const bool skipped = record.type == RecordType::pad && recordHeaderSize + length < block_.size();
        if (!damaged_ && !skipped) return record;
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

bool isPathOf(EntryType type, std::string_view path) {
    return isEntryPath(path) && (!path.empty() || type == EntryType::directory);
}

EntryType readEntryType(WireReader& in, unsigned number) {
    if (number < 1 || number > 3) in.fail();
    return static_cast<EntryType>(number);
}

void encodeEntryHead(const EntryHead& head, std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    out.varint(head.number);
    out.byte(static_cast<std::uint8_t>(static_cast<unsigned>(head.type) |
                                       (head.digestAnnounced ? entryDigestAnnounced : 0U)));
    out.text(head.path);
    encodeFields(head, out);
}

std::optional<EntryHead> decodeEntryHead(Bytes payload) {
    WireReader in(payload);
    EntryHead head;
    head.number = in.number<std::uint64_t>(maxEntries - 1);
    const unsigned type = in.byte();
    head.type = readEntryType(in, type & ~unsigned{entryDigestAnnounced});
    head.digestAnnounced = type & entryDigestAnnounced;
    if (head.digestAnnounced && head.type == EntryType::directory) in.fail();
    head.path = in.text();
    decodeFields(in, head);
    if (!in.ok() || !in.atEnd() || !isPathOf(head.type, head.path)) return std::nullopt;
    return head;
}

void encodeEntryTail(const EntryTail& tail, std::vector<std::uint8_t>& bytes) {
    WireWriter out(bytes);
    encodeFields(tail, out);
}

std::optional<EntryTail> decodeEntryTail(Bytes payload) {
    if (payload.size() > maxEndLength) return std::nullopt;
    WireReader in(payload);
    EntryTail tail;
    decodeFields(in, tail);
    if (!in.ok() || !in.atEnd() || !isConsistent(tail)) return std::nullopt;
    return tail;
}

bool announcesDigest(Bytes payload) {
    WireReader in(payload);
    in.varint();
    return in.byte() & entryDigestAnnounced;
}

std::optional<std::uint64_t> decodeHole(Bytes payload) {
    WireReader in(payload);
    const std::uint64_t length = in.varint();
    if (!in.ok() || !in.atEnd() || length == 0) return std::nullopt;
    return length;
}

}  // namespace tarnwick::qvx
