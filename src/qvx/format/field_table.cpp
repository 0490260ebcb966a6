#include "qvx/format/field_table.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>

#include "qvx/format/access_list.h"

namespace tarnwick::qvx {

namespace {

// None for a time that 64 bits of nanoseconds cannot express, for example in the year 2400.
std::optional<std::int64_t> nanoseconds(const struct statx_timestamp& time) {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(time.tv_sec, 1'000'000'000, &result) ||
        __builtin_add_overflow(result, time.tv_nsec, &result))
        return std::nullopt;
    return result;
}

Status captureTime(const struct statx_timestamp& time, std::optional<std::int64_t>& field) {
    field = nanoseconds(time);
    return field ? Status() : systemError(EOVERFLOW);
}

Status captureFlags(const CaptureSource& source, EntryHead& head) {
    int flags = 0;  // the kernel writes an int, although the call is declared for a long
    if (source.descriptor >= 0 && ::ioctl(source.descriptor, FS_IOC_GETFLAGS, &flags) == 0)
        head.flags = static_cast<std::uint32_t>(flags);
    return {};
}

Status captureAttributes(const CaptureSource& source, EntryTail& tail) {
    if (source.attributes && !source.attributes->extended.empty())
        tail.attributes = std::move(source.attributes->extended);
    return {};
}

Status captureAccessLists(const CaptureSource& source, EntryTail& tail) {
    if (!source.attributes) return {};
    const auto access = parseKernelAccessList(source.attributes->accessList);
    const auto defaults = parseKernelAccessList(source.attributes->defaultList);
    AccessLists lists;
    if (access && !isModeAlone(*access, source.status.stx_mode)) lists.access = *access;
    if (defaults) lists.defaultList = *defaults;
    const bool fits = access && defaults && areListsOf(source.type, lists);
    if (fits && !(lists.access.empty() && lists.defaultList.empty())) tail.accessLists = std::move(lists);
    return fits ? Status() : systemError(E2BIG);
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

// Checked before the copies, so that no input makes them larger than the limit.
ExtendedAttribute decodeAttribute(WireReader& in, std::size_t& bytesLeft) {
    const std::string_view name = in.text();
    const std::string_view value = in.text();
    if (!isAttributeName(name) || value.size() > maxAttributeValueLength || name.size() + value.size() > bytesLeft) {
        in.fail();
        return {};
    }
    bytesLeft -= name.size() + value.size();
    return {std::string(name), std::string(value)};
}

void decodeAttributes(WireReader& in, EntryTail& tail) {
    constexpr std::size_t minAttributeSize = 8;  // two lengths, and a name of six characters
    const std::size_t count = in.count(minAttributeSize);
    if (count == 0 || count > maxAttributes) in.fail();
    std::vector<ExtendedAttribute> attributes(in.ok() ? count : 0);
    std::size_t bytesLeft = maxAttributeBytes;
    for (auto& attribute : attributes) attribute = decodeAttribute(in, bytesLeft);
    if (std::ranges::adjacent_find(attributes, std::ranges::greater_equal(), &ExtendedAttribute::name) !=
        attributes.end())
        in.fail();
    tail.attributes = std::move(attributes);
}

void encodeAccessLists(const EntryTail& tail, WireWriter& out) {
    encodeAccessList(tail.accessLists->access, out);
    encodeAccessList(tail.accessLists->defaultList, out);
}

void decodeAccessLists(WireReader& in, EntryTail& tail) {
    AccessLists& lists = tail.accessLists.emplace();
    lists.access = decodeAccessList(in);
    lists.defaultList = decodeAccessList(in);
    if (lists.access.empty() && lists.defaultList.empty()) in.fail();
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

Status captureId(std::uint32_t id, std::optional<std::uint32_t>& field) {
    if (id > maxId) return systemError(EOVERFLOW);
    field = id;
    return {};
}

Status captureUser(const CaptureSource& source, EntryHead& head) {
    return captureId(source.status.stx_uid, head.userId);
}
Status captureGroup(const CaptureSource& source, EntryHead& head) {
    return captureId(source.status.stx_gid, head.groupId);
}
Status captureMode(const CaptureSource& source, EntryHead& head) {
    head.mode = static_cast<std::uint16_t>(source.status.stx_mode & maxMode);
    return {};
}
Status captureModified(const CaptureSource& source, EntryHead& head) {
    return captureTime(source.status.stx_mtime, head.modified);
}
Status captureChanged(const CaptureSource& source, EntryHead& head) {
    return captureTime(source.status.stx_ctime, head.changed);
}
Status captureCreated(const CaptureSource& source, EntryHead& head) {
    if (!(source.status.stx_mask & STATX_BTIME)) return {};
    return captureTime(source.status.stx_btime, head.created);
}

template <auto member, std::uint64_t max, typename Part>
constexpr FieldRow<Part> numberRow(std::string_view key, Status (*capture)(const CaptureSource&, Part&)) {
    return {key, isPresent<member>, clear<member>, encodeNumber<member>, decodeNumber<member, max>, capture};
}

template <auto member>
constexpr FieldRow<EntryHead> timeRow(std::string_view key, Status (*capture)(const CaptureSource&, EntryHead&)) {
    return {key, isPresent<member>, clear<member>, encodeTime<member>, decodeTime<member>, capture};
}

template <auto member, typename Part>
constexpr FieldRow<Part> row(std::string_view key, void (*encode)(const Part&, WireWriter&),
                             void (*decode)(WireReader&, Part&),
                             Status (*capture)(const CaptureSource&, Part&) = nullptr) {
    return {key, isPresent<member>, clear<member>, encode, decode, capture};
}

constexpr std::uint64_t max32 = std::numeric_limits<std::uint32_t>::max();

constexpr FieldRow<EntryHead> headRows[] = {
    numberRow<&EntryHead::userId, maxId, EntryHead>("UID", captureUser),
    numberRow<&EntryHead::groupId, maxId, EntryHead>("GID", captureGroup),
    numberRow<&EntryHead::mode, maxMode, EntryHead>("MOD", captureMode),
    numberRow<&EntryHead::flags, max32, EntryHead>("FLG", captureFlags),
    row<&EntryHead::modified>("MTM", encodeModified, decodeModified, captureModified),
    timeRow<&EntryHead::changed>("CTM", captureChanged),
    timeRow<&EntryHead::created>("BTM", captureCreated),
};

constexpr FieldRow<EntryTail> tailRows[] = {
    row<&EntryTail::digest, EntryTail>("SH2", encodeDigest, decodeDigest),
    row<&EntryTail::totals, EntryTail>("SLC", encodeTotals, decodeTotals),
    numberRow<&EntryTail::contentOf, maxEntries - 1, EntryTail>("CLC", nullptr),
    row<&EntryTail::hardLink, EntryTail>(
        "HLC", [](const EntryTail&, WireWriter&) {}, [](WireReader&, EntryTail& tail) { tail.hardLink = true; }),
    row<&EntryTail::attributes>("XAT", encodeAttributes, decodeAttributes, captureAttributes),
    row<&EntryTail::accessLists>("ACL", encodeAccessLists, decodeAccessLists, captureAccessLists),
    row<&EntryTail::unreadable, EntryTail>("", encodeUnreadable, decodeUnreadable),
};

// Bit 0 of a mask is the content; the bits of the two tables follow.
constexpr std::string_view dataKey = "DAT";
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

bool isAttributeName(std::string_view name) {
    if (name == accessListAttribute || name == defaultListAttribute) return false;
    static constexpr std::string_view prefixes[] = {"user.", "trusted.", "security.", "system."};
    const auto begins = [&](std::string_view prefix) {
        return name.starts_with(prefix) && name.size() > prefix.size();
    };
    return name.size() <= maxAttributeNameLength && std::ranges::any_of(prefixes, begins) &&
           name.find('\0') == std::string_view::npos;
}

FieldMask fieldBit(std::string_view key) {
    if (key.empty()) return 0;
    if (key == dataKey) return 1;
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
