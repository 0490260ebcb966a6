#include "qvx/format/access_list.h"

#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <bit>

namespace tarnwick::qvx {

namespace {

using Kind = AccessRule::Kind;

constexpr unsigned kinds = 6;
constexpr unsigned maxPermissions = 7;
constexpr unsigned kindShift = 3;            // in the byte of kind and permissions
constexpr std::uint32_t noId = maxId + 1;    // of the kernel, in entries of the other kinds
constexpr std::size_t kernelHeaderSize = 4;  // the version
constexpr std::size_t kernelEntrySize = 8;   // tag, permissions, id

bool hasId(Kind kind) { return kind == Kind::user || kind == Kind::group; }

// The kernel has one bit for each kind, in the same order.
static_assert(ACL_USER_OBJ == 1 << int(Kind::owner) && ACL_USER == 1 << int(Kind::user) &&
              ACL_GROUP_OBJ == 1 << int(Kind::owningGroup) && ACL_GROUP == 1 << int(Kind::group) &&
              ACL_MASK == 1 << int(Kind::mask) && ACL_OTHER == 1 << int(Kind::others));
static_assert(sizeof(posix_acl_xattr_header) == kernelHeaderSize && sizeof(posix_acl_xattr_entry) == kernelEntrySize);

std::uint64_t kernelTag(Kind kind) { return std::uint64_t{1} << static_cast<unsigned>(kind); }

auto place(const AccessRule& rule) { return std::pair(rule.kind, rule.id); }

std::optional<AccessRule> parseKernelEntry(WireReader& in) {
    const std::uint64_t entry = in.fixed64();
    const auto tag = static_cast<std::uint16_t>(entry);
    const auto permissions = static_cast<std::uint16_t>(entry >> 16);
    const auto id = static_cast<std::uint32_t>(entry >> 32);
    if (!std::has_single_bit(tag) || tag > ACL_OTHER || permissions > maxPermissions) return std::nullopt;
    const auto kind = static_cast<Kind>(std::countr_zero(tag));
    return AccessRule{kind, static_cast<std::uint8_t>(permissions), hasId(kind) ? id : 0};
}

}  // namespace

bool isAccessList(const AccessList& list) {
    std::array<std::size_t, kinds> counts{};
    const auto count = [&](Kind kind) -> std::size_t& { return counts[static_cast<std::size_t>(kind)]; };
    for (const AccessRule& rule : list) {
        if (rule.id > maxId) return false;
        ++count(rule.kind);
    }
    const bool named = count(Kind::user) + count(Kind::group) > 0;
    const bool whole = count(Kind::owner) == 1 && count(Kind::owningGroup) == 1 && count(Kind::others) == 1 &&
                       count(Kind::mask) <= 1 && (count(Kind::mask) == 1 || !named);
    const bool ascending = std::ranges::adjacent_find(list, std::ranges::greater_equal(), place) == list.end();
    return list.empty() || (whole && ascending && list.size() <= maxAccessRules);
}

bool isModeAlone(const AccessList& list, mode_t mode) {
    // A list of three has the owner, the owning group and the others.
    const auto bits = [&](std::size_t at) { return mode >> (6 - 3 * at) & maxPermissions; };
    return list.size() == 3 && list[0].permissions == bits(0) && list[1].permissions == bits(1) &&
           list[2].permissions == bits(2);
}

bool areListsOf(EntryType type, const AccessLists& lists) {
    return (type != EntryType::link || lists.access.empty()) &&
           (type == EntryType::directory || lists.defaultList.empty());
}

void encodeAccessList(const AccessList& list, WireWriter& out) {
    out.varint(list.size());
    for (const AccessRule& rule : list) {
        out.byte(static_cast<std::uint8_t>(static_cast<unsigned>(rule.kind) << kindShift | rule.permissions));
        if (hasId(rule.kind)) out.varint(rule.id);
    }
}

AccessList decodeAccessList(WireReader& in) {
    const std::size_t count = in.count(1);
    if (count > maxAccessRules) in.fail();
    AccessList list(in.ok() ? count : 0);
    for (AccessRule& rule : list) {
        const std::uint8_t byte = in.byte();
        if (byte >> kindShift >= kinds) in.fail();
        rule.kind = static_cast<Kind>(byte >> kindShift);
        rule.permissions = byte & maxPermissions;
        if (in.ok() && hasId(rule.kind)) rule.id = in.number<std::uint32_t>();
    }
    if (in.ok() && !isAccessList(list)) in.fail();
    return list;
}

std::optional<AccessList> parseKernelAccessList(std::string_view value) {
    AccessList list;
    if (value.empty()) return list;
    WireReader in({reinterpret_cast<const std::uint8_t*>(value.data()), value.size()});
    const Bytes version = in.bytes(kernelHeaderSize);
    if (version.empty() || getLittleEndian<4>(version.data()) != POSIX_ACL_XATTR_VERSION) return std::nullopt;
    while (in.ok() && !in.atEnd()) {
        const auto rule = parseKernelEntry(in);
        if (!rule) return std::nullopt;
        list.push_back(*rule);
    }
    // The kernel accepts any order of the ids.
    std::ranges::sort(list, {}, place);
    if (!in.ok() || !isAccessList(list)) return std::nullopt;
    return list;
}

std::string kernelAccessList(const AccessList& list) {
    std::vector<std::uint8_t> bytes(kernelHeaderSize);
    putLittleEndian<kernelHeaderSize>(bytes.data(), unsigned{POSIX_ACL_XATTR_VERSION});
    WireWriter out(bytes);
    for (const AccessRule& rule : list)
        out.fixed64(kernelTag(rule.kind) | std::uint64_t{rule.permissions} << 16 |
                    std::uint64_t{hasId(rule.kind) ? rule.id : noId} << 32);
    return {bytes.begin(), bytes.end()};
}

std::string accessListText(const AccessList& list) {
    static constexpr const char* names[kinds] = {"user:", "user:", "group:", "group:", "mask:", "other:"};
    std::string text;
    for (const AccessRule& rule : list) {
        if (!text.empty()) text += '\n';
        text += names[static_cast<unsigned>(rule.kind)];
        if (hasId(rule.kind)) text += std::to_string(rule.id);
        text += ':';
        text += rule.permissions & 4 ? 'r' : '-';
        text += rule.permissions & 2 ? 'w' : '-';
        text += rule.permissions & 1 ? 'x' : '-';
    }
    return text;
}

}  // namespace tarnwick::qvx
