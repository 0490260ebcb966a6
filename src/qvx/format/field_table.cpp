#include "qvx/format/field_table.h"

#include <archive.h>
#include <archive_entry.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

// A time out of range becomes the nearest one in range: a file may have a time in the year 2400, which 64 bits of
// nanoseconds cannot express.
std::int64_t nanoseconds(const struct statx_timestamp& time) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t result = 0;
    if (!__builtin_mul_overflow(time.tv_sec, 1'000'000'000, &result) &&
        !__builtin_add_overflow(result, time.tv_nsec, &result))
        return result;
    return time.tv_sec < 0 ? Limits::min() : Limits::max();
}

void captureFlags(const CaptureSource& source, EntryHead& head) {
    int flags = 0;  // the kernel writes an int, although the call is declared for a long
    if (source.descriptor >= 0 && ::ioctl(source.descriptor, FS_IOC_GETFLAGS, &flags) == 0)
        head.flags = static_cast<std::uint32_t>(flags);
}

void captureAttributes(const CaptureSource& source, EntryTail& tail) {
    archive_entry* entry = source.extras;
    if (!entry) return;
    std::vector<ExtendedAttribute> attributes;
    std::size_t total = 0;
    archive_entry_xattr_reset(entry);
    const char* name = nullptr;
    const void* value = nullptr;
    std::size_t size = 0;
    while (archive_entry_xattr_next(entry, &name, &value, &size) == ARCHIVE_OK) {
        total += std::char_traits<char>::length(name) + size;
        if (total > maxAttributeBytes) {
            tail.attributesOmitted = true;
            return;
        }
        attributes.push_back({name, std::string(static_cast<const char*>(value), size)});
    }
    if (!attributes.empty()) tail.attributes = std::move(attributes);
}

std::string accessListText(archive_entry* entry, int type) {
    if (!(archive_entry_acl_types(entry) & type)) return {};
    const std::unique_ptr<char, FreeWith<std::free>> text(archive_entry_acl_to_text(entry, nullptr, type));
    return text ? text.get() : "";
}

void captureAccessLists(const CaptureSource& source, EntryTail& tail) {
    if (!source.extras) return;
    AccessLists lists{accessListText(source.extras, ARCHIVE_ENTRY_ACL_TYPE_ACCESS),
                      accessListText(source.extras, ARCHIVE_ENTRY_ACL_TYPE_DEFAULT)};
    if (!lists.access.empty() || !lists.defaultList.empty()) tail.accessLists = std::move(lists);
}

template <auto member, typename Part>
bool isPresent(const Part& part) {
    return static_cast<bool>(part.*member);
}

template <auto member, typename Part>
void clear(Part& part) {
    part.*member = {};
}

template <auto member, typename Part>
void encodeNumber(const Part& part, WireWriter& out) {
    out.varint(*(part.*member));
}

template <auto member, std::uint64_t max, typename Part>
void decodeNumber(WireReader& in, Part& part) {
    using Number = typename std::remove_reference_t<decltype(part.*member)>::value_type;
    part.*member = in.number<Number>(max);
}

// The other times of a file are mostly close to its time of modification, so the difference needs few bytes.
template <auto member>
void encodeTime(const EntryHead& head, WireWriter& out) {
    out.signedVarint(wrappingSubtract(*(head.*member), head.modified.value_or(0)));
}

template <auto member>
void decodeTime(WireReader& in, EntryHead& head) {
    head.*member = wrappingAdd(head.modified.value_or(0), in.signedVarint());
}

void encodeModified(const EntryHead& head, WireWriter& out) { out.fixed64(static_cast<std::uint64_t>(*head.modified)); }
void decodeModified(WireReader& in, EntryHead& head) { head.modified = static_cast<std::int64_t>(in.fixed64()); }

void encodeAttributes(const EntryTail& tail, WireWriter& out) {
    out.varint(tail.attributes->size());
    for (const auto& attribute : *tail.attributes) {
        out.text(attribute.name);
        out.text(attribute.value);
    }
}

void decodeAttributes(WireReader& in, EntryTail& tail) {
    constexpr std::size_t maxAttributes = 65536;  // more than the kernel can list: its list of names has at most 64 KiB
    const std::size_t count = in.count(3);        // bytes: two lengths, and a name of one character
    if (count > maxAttributes) in.fail();
    std::vector<ExtendedAttribute> attributes(in.ok() ? count : 0);
    for (auto& attribute : attributes) {
        attribute.name = in.text();
        attribute.value = in.text();
        if (attribute.name.empty() || attribute.name.find('\0') != std::string::npos) in.fail();
    }
    tail.attributes = std::move(attributes);
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

std::string readAccessList(WireReader& in) {
    const std::string_view list = in.text();
    for (std::size_t begin = 0; begin < list.size();) {
        const std::size_t end = std::min(list.find('\n', begin), list.size());
        if (!isAccessListLine(list.substr(begin, end - begin))) in.fail();
        begin = end + 1;
    }
    return std::string(list);
}

void encodeAccessLists(const EntryTail& tail, WireWriter& out) {
    out.text(tail.accessLists->access);
    out.text(tail.accessLists->defaultList);
}

void decodeAccessLists(WireReader& in, EntryTail& tail) {
    tail.accessLists.emplace();
    tail.accessLists->access = readAccessList(in);
    tail.accessLists->defaultList = readAccessList(in);
}

// An offset is stored as the distance from the end of the previous extent, so no input decodes to overlapping extents.
void encodeUnreadable(const EntryTail& tail, WireWriter& out) {
    out.varint(tail.unreadable->size());
    std::uint64_t end = 0;
    for (const Extent& extent : *tail.unreadable) {
        out.varint(extent.offset - end);
        out.varint(extent.length);
        end = extent.end();
    }
}

void decodeUnreadable(WireReader& in, EntryTail& tail) {
    const std::size_t count = in.count(2);  // bytes: two numbers
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
    tail.unreadable = std::move(extents);
}

void encodeDigest(const EntryTail& tail, WireWriter& out) { out.bytes(*tail.digest); }
void decodeDigest(WireReader& in, EntryTail& tail) {
    const Bytes digest = in.bytes(Digest{}.size());
    std::copy(digest.begin(), digest.end(), tail.digest.emplace().begin());
}

void encodeTotals(const EntryTail& tail, WireWriter& out) {
    out.varint(tail.totals->size);
    out.varint(tail.totals->holes);
}
void decodeTotals(WireReader& in, EntryTail& tail) {
    const std::uint64_t size = in.varint();
    tail.totals = SparseTotals{size, in.varint()};
}

void captureUser(const CaptureSource& source, EntryHead& head) { head.userId = source.status.stx_uid; }
void captureGroup(const CaptureSource& source, EntryHead& head) { head.groupId = source.status.stx_gid; }
void captureMode(const CaptureSource& source, EntryHead& head) {
    head.mode = static_cast<std::uint16_t>(source.status.stx_mode & maxMode);
}
void captureModified(const CaptureSource& source, EntryHead& head) {
    head.modified = nanoseconds(source.status.stx_mtime);
}
void captureChanged(const CaptureSource& source, EntryHead& head) {
    head.changed = nanoseconds(source.status.stx_ctime);
}
void captureCreated(const CaptureSource& source, EntryHead& head) {
    if (source.status.stx_mask & STATX_BTIME) head.created = nanoseconds(source.status.stx_btime);
}

template <auto member, std::uint64_t max, typename Part>
constexpr FieldRow<Part> numberRow(std::string_view key, void (*capture)(const CaptureSource&, Part&)) {
    return {key, isPresent<member>, clear<member>, encodeNumber<member>, decodeNumber<member, max>, capture};
}

template <auto member>
constexpr FieldRow<EntryHead> timeRow(std::string_view key, void (*capture)(const CaptureSource&, EntryHead&)) {
    return {key, isPresent<member>, clear<member>, encodeTime<member>, decodeTime<member>, capture};
}

template <auto member, typename Part>
constexpr FieldRow<Part> row(std::string_view key, void (*encode)(const Part&, WireWriter&),
                             void (*decode)(WireReader&, Part&),
                             void (*capture)(const CaptureSource&, Part&) = nullptr) {
    return {key, isPresent<member>, clear<member>, encode, decode, capture};
}

constexpr std::uint64_t max32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t max64 = std::numeric_limits<std::uint64_t>::max();

constexpr FieldRow<EntryHead> headRows[] = {
    numberRow<&EntryHead::userId, max32, EntryHead>("UID", captureUser),
    numberRow<&EntryHead::groupId, max32, EntryHead>("GID", captureGroup),
    numberRow<&EntryHead::mode, maxMode, EntryHead>("MOD", captureMode),
    numberRow<&EntryHead::flags, max32, EntryHead>("FLG", captureFlags),
    row<&EntryHead::modified>("MTM", encodeModified, decodeModified, captureModified),
    timeRow<&EntryHead::changed>("CTM", captureChanged),
    timeRow<&EntryHead::created>("BTM", captureCreated),
};

constexpr FieldRow<EntryTail> tailRows[] = {
    row<&EntryTail::digest, EntryTail>("SH2", encodeDigest, decodeDigest),
    row<&EntryTail::totals, EntryTail>("SLC", encodeTotals, decodeTotals),
    numberRow<&EntryTail::contentOf, max64, EntryTail>("CLC", nullptr),
    numberRow<&EntryTail::linkOf, max64, EntryTail>("HLC", nullptr),
    row<&EntryTail::attributes>("XAT", encodeAttributes, decodeAttributes, captureAttributes),
    row<&EntryTail::accessLists>("ACL", encodeAccessLists, decodeAccessLists, captureAccessLists),
    row<&EntryTail::unreadable, EntryTail>("", encodeUnreadable, decodeUnreadable),
    // Has a presence bit only, and no value.
    row<&EntryTail::attributesOmitted, EntryTail>(
        "", [](const EntryTail&, WireWriter&) {}, [](WireReader&, EntryTail& tail) { tail.attributesOmitted = true; }),
};

static_assert(std::size(headRows) <= 8 && std::size(tailRows) <= 8);  // one byte of presence bits

// Bit 0 of a mask is the content; the bits of the two tables follow.
constexpr std::string_view contentKey = "DAT";
constexpr unsigned firstHeadBit = 1;
constexpr unsigned firstTailBit = firstHeadBit + std::size(headRows);

template <typename Part>
void removeOthers(std::span<const FieldRow<Part>> table, FieldMask kept, Part& part) {
    for (std::size_t i = 0; i < table.size(); ++i)
        if (!table[i].key.empty() && !(kept >> i & 1)) table[i].clear(part);
}

template <typename Part>
FieldMask bitIn(std::span<const FieldRow<Part>> table, std::string_view key) {
    const auto found = std::ranges::find(table, key, &FieldRow<Part>::key);
    return found == table.end() ? 0 : FieldMask{1} << (found - table.begin());
}

}  // namespace

template <>
std::span<const FieldRow<EntryHead>> fieldTable() {
    return headRows;
}

template <>
std::span<const FieldRow<EntryTail>> fieldTable() {
    return tailRows;
}

FieldMask fieldBit(std::string_view key) {
    if (key.empty()) return 0;
    if (key == contentKey) return 1;
    return bitIn(fieldTable<EntryHead>(), key) << firstHeadBit | bitIn(fieldTable<EntryTail>(), key) << firstTailBit;
}

std::optional<FieldMask> parseFieldKeys(std::string_view keys) {
    FieldMask fields = 0;
    for (;;) {
        const std::string_view key = keys.substr(0, keys.find(','));
        const FieldMask bit = fieldBit(key);
        if (bit == 0 || fields & bit) return std::nullopt;
        fields |= bit;
        if (key.size() == keys.size()) return fields;
        keys.remove_prefix(key.size() + 1);
    }
}

void removeOtherFields(FieldMask kept, EntryHead& head) {
    removeOthers(fieldTable<EntryHead>(), kept >> firstHeadBit, head);
}

void removeOtherFields(FieldMask kept, EntryTail& tail) {
    removeOthers(fieldTable<EntryTail>(), kept >> firstTailBit, tail);
}

}  // namespace tarnwick::qvx
