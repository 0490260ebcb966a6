// Values at their bounds. The replay of entry_codec_fuzz checks that each payload has one form only.
#include "qvx/format/entry_codec.h"

#include <gtest/gtest.h>

#include "fuzz/decoded_root.h"
#include "qvx/format/access_list.h"
#include "qvx/format/field_table.h"
#include "qvx/format/index_codec.h"
#include "unit/hex.h"

using namespace tarnwick::qvx;
using namespace std::literals;
using tarnwick::test::fromHex;
using Kind = AccessRule::Kind;

namespace {

bool isPart(Bytes payload) {
    IndexPartDecoder decoder(payload);
    while (decoder.next()) continue;
    return !decoder.damaged();
}

constexpr auto head = [](Bytes payload) { return decodeEntryHead(payload).has_value(); };
constexpr auto tail = [](Bytes payload) { return decodeEntryTail(payload).has_value(); };
constexpr auto hole = [](Bytes payload) { return decodeHole(payload).has_value(); };
constexpr auto root = [](Bytes payload) { return decodeRoot(payload).has_value(); };

bool isTail(const EntryTail& fields) {
    std::vector<std::uint8_t> payload;
    encodeEntryTail(fields, payload);
    return tail(payload);
}

bool isBlock(Bytes block) {
    RecordCursor cursor(block);
    while (cursor.next()) continue;
    return !cursor.damaged();
}

const std::string digest(64, '7');

TEST(EntryCodec, RefusesTheFirstValuePastABound) {
    const std::tuple<std::string, bool (*)(Bytes), std::string, std::string> bounds[] = {
        {"type of an entry", head, "0003016100", "0004016100"},
        {"no type", head, "0001016100", "0000016100"},
        {"digest of a folder", head, "0081016100", "0082016100"},
        {"empty path of a file", head, "00020000", "00010000"},
        {"cut path", head, "0001016100", "00010261"},
        {"unknown field", head, "000101614000", "000101618001"},
        {"longer form of the fields", head, "0001016100", "000101618000"},
        {"byte after the last field", head, "0001016100", "000101610000"},
        {"user id", head, "0001016101feffffff0f", "0001016101ffffffff0f"},
        {"group id", head, "0001016102feffffff0f", "0001016102ffffffff0f"},
        {"mode", head, "0001016104ff1f", "00010161048020"},
        {"flags", head, "0001016108ffffffff0f", "00010161088080808010"},
        {"cut time", head, "00010161100000000000000000", "000101611000000000000000"},
        {"change time", head, "0001016120ffffffffffffffffff01", "0001016120ffffffffffffffffff02"},
        {"64 bits", hole, "ffffffffffffffffff01", "ffffffffffffffffff02"},
        {"length of a hole", hole, "01", "00"},
        {"byte after a hole", hole, "01", "0100"},
        {"unknown field of END", tail, "4000", "c00100"},
        {"byte after END", tail, "00", "0000"},
        {"cut digest", tail, "01" + digest, "01" + digest.substr(2)},
        {"size without holes", tail, "020000", "0200"},
        {"reference with digest", tail, "0400", "05" + digest + "00"},
        {"reference with size", tail, "0400", "06000000"},
        {"reference with lost content", tail, "440000", "4400010001"},
        {"entry with the content", tail, "04feffffff0f", "04ffffffff0f"},
        {"hard link without reference", tail, "0c00", "08"},
        {"name without rest", tail, "100106757365722e6100", "100105757365722e00"},
        {"name of another kind", tail, "100106757365722e6100", "100106746573742e6100"},
        {"zero byte in a name", tail, "100107757365722e616200", "100107757365722e610000"},
        {"no attributes", tail, "100106757365722e6100", "1000"},
        {"no lists", tail, "200306142c00", "200000"},
        {"more attributes than bytes", tail, "100106757365722e6100", "100206757365722e6100"},
        {"attribute twice", tail, "100206757365722e610006757365722e6200", "100206757365722e610006757365722e6100"},
        {"attributes in no order", tail, "100206757365722e610006757365722e6200",
         "100206757365722e620006757365722e6100"},
        {"list without others", tail, "200306142c00", "2002061400"},
        {"list without owning group", tail, "200306142c00", "2002062c00"},
        {"two owners", tail, "200306142c00", "200406070614 2c00"},
        {"list in another order", tail, "200306142c00", "200314062c00"},
        {"unknown kind", tail, "200306142c00", "200406142c3400"},
        {"bit 6 of an entry", tail, "200306142c00", "200346142c00"},
        {"bit 7 of an entry", tail, "200306142c00", "200306 94 2c00"},
        {"user without mask", tail, "2005060c0714242c00", "2004060c07142c00"},
        {"group without mask", tail, "200506141c07242c00", "200406141c072c00"},
        {"two masks", tail, "200406142428 00", "20050614242c 2c00"},
        {"no id", tail, "2005060cfeffffff0f14242c00", "2005060cffffffff0f14242c00"},
        {"id twice", tail, "2006060c070c0814242c00", "2006060c070c0714242c00"},
        {"ids in no order", tail, "2006060c070c0814242c00", "2006060c080c0714242c00"},
        {"more entries than bytes", tail, "200306142c00", "200406142c00"},
        {"default list", tail, "200003 06142c", "200003 06142d2c"},
        {"extent without a length", tail, "40010001", "40010000"},
        {"adjacent extents", tail, "400200010101", "400200010001"},
        {"length past the largest content", tail, "400100ffffffffffffffff7f", "400101ffffffffffffffff7f"},
        {"offset past the largest content", tail, "4001feffffffffffffff7f01", "4001ffffffffffffffffff0101"},
        {"type of a record", isBlock, "02000000 000000", "08000000 000000"},
        {"first addition", isBlock, "40010000 aa 000000", "3f010000 aa 000000"},
        {"last addition", isBlock, "7e000000 000000", "7f000000 000000"},
        {"record past the block", isBlock, "02080000 0000000000000000", "02090000 0000000000000000"},
        {"split data", isBlock, "84080000 0000000000000000", "82080000 0000000000000000"},
        {"split addition", isBlock, "84080000 0000000000000000", "c0080000 0000000000000000"},
        {"split end with space left", isBlock, "84050000 0000000000000000", "84040000 0000000000000000"},
        {"short padding", isBlock, "00080000 0000000000000000", "00070000 0000000000000000"},
        {"padding of ones", isBlock, "00080000 0000000000000000", "00080000 0000000000000001"},
        {"rest of ones", isBlock, "02060000 000000000000 0000", "02060000 000000000000 0001"},
        {"offset of an index part", root, "010100 00 ffff3f 00", "010100 00 808040 00"},
        {"block of an index part", root, "010100 ffffff03 00 00", "010100 80808004 00 00"},
        {"first index part", root, "020100 00 00 00", "020101 00 00 00"},
        {"index part of 128 entries", root, "810102 00 00 00 8001 00 00 00", "810102 00 00 00 7f 00 00 00"},
        {"last index part", root, "810102 00 00 00 8001 00 00 00", "810102 00 00 00 8101 00 00 00"},
        {"no index part", root, "000000", "010000"},
        {"shortest block", root, "00000111", "00000110"},
        {"longest block", root, "000001908040", "000001918040"},
        {"count of index parts", root, "000000", "010100"},
        {"count of index entries", isPart, "0001 000000 01 00 0161 00 00 00 00 00", "0000"},
        {"entry number in the index", isPart, "feffffff0f 01 000000 01 00 0161 00 00 00 00 00",
         "ffffffff0f 01 000000 01 00 0161 00 00 00 00 00"},
        {"block of an entry", isPart, "0001 feffff070000 01 00 0161 00 00 00 00 00",
         "0001 808080080000 01 00 0161 00 00 00 00 00"},
        {"block before the first", isPart, "0001 000000 01 00 0161 00 00 00 00 00",
         "0001 010000 01 00 0161 00 00 00 00 00"},
        {"span of an entry", isPart, "0001 0000ffffff03 01 00 0161 00 00 00 00 00",
         "0001 000080808004 01 00 0161 00 00 00 00 00"},
        {"size of an entry", isPart, "0001 000000 01 00 0161 00 00 00 ffffffffffffffff7f 00",
         "0001 000000 01 00 0161 00 00 00 80808080808080808001 00"},
        {"entry number", head, "feffffff0f 01 016100", "ffffffff0f 01 016100"},
    };
    for (const auto& [name, decodes, valid, refused] : bounds) {
        EXPECT_TRUE(decodes(fromHex(valid))) << name;
        EXPECT_FALSE(decodes(fromHex(refused))) << name;
    }
}

EntryTail attributesOf(std::size_t count, std::size_t bytes) {
    EntryTail fields{.attributes = std::vector<ExtendedAttribute>(count)};
    for (auto& [name, value] : *fields.attributes) {
        name = "user." + std::to_string(100000 + count--);
        value.assign(std::min(bytes, maxAttributeValueLength), 'x');
        bytes -= value.size();
    }
    std::ranges::reverse(*fields.attributes);
    return fields;
}

AccessList listOf(std::size_t count) {
    AccessList list(count, {Kind::user, 7});
    for (std::uint32_t id = 0; auto& rule : list) rule.id = id++;
    list[0] = {Kind::owner, 7};
    for (const auto kind : {Kind::owningGroup, Kind::mask, Kind::others}) list[count++ - 3] = {kind, 7};
    return list;
}

TEST(EntryCodec, RefusesMoreItemsThanTheirLimit) {
    std::vector<Extent> extents;
    for (std::size_t i = 0; i <= maxUnreadableExtents; ++i) extents.push_back({2 * i, 1});
    const auto withoutLast = std::vector(extents.begin(), extents.end() - 1);
    constexpr std::size_t total = maxAttributeBytes - 16 * std::string_view("user.100000").size();
    const std::string name = "user." + std::string(250, 'n'), value(maxAttributeValueLength, 'v');
    const std::tuple<const char*, EntryTail, EntryTail> limits[] = {
        {"extents", {.unreadable = withoutLast}, {.unreadable = extents}},
        {"attributes", attributesOf(65536, 0), attributesOf(65537, 0)},
        {"bytes", attributesOf(16, total), attributesOf(16, total + 1)},
        {"name", {.attributes = {{{name, ""}}}}, {.attributes = {{{name + 'n', ""}}}}},
        {"value", {.attributes = {{{"user.a", value}}}}, {.attributes = {{{"user.a", value + 'v'}}}}},
        {"access", {.accessLists = {{listOf(8191), {}}}}, {.accessLists = {{listOf(8192), {}}}}},
        {"default", {.accessLists = {{{}, listOf(8191)}}}, {.accessLists = {{{}, listOf(8192)}}}},
    };
    for (const auto& [what, valid, refused] : limits) {
        EXPECT_TRUE(isTail(valid)) << what;
        EXPECT_FALSE(isTail(refused)) << what;
    }
    for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"})
        EXPECT_FALSE(isTail({.attributes = {{{list, ""}}}})) << list;
}

TEST(EntryCodec, RefusesPathsThatLeadElsewhere) {
    const std::string longest(4095, 'x');
    for (const auto& path : {""s, "a/..b"s, ".../c"s, longest}) EXPECT_TRUE(isEntryPath(path)) << path;
    for (const auto& path : {"/a"s, "a/"s, "a//b"s, ".."s, "a/../b"s, "./a"s, "a\0b"s, longest + 'x'})
        EXPECT_FALSE(isEntryPath(path)) << path;
}

// Little-endian: version, then tag, permissions and id of each entry.
TEST(AccessList, RefusesKernelAttributeThatNoArchiveCanHave) {
    const std::string owner = "0100 0600 ffffffff", group = "0400 0400 ffffffff", mask = "1000 0400 ffffffff",
                      others = "2000 0400 ffffffff", user = "0200 0400 07000000", version = "02000000";
    const auto parse = [](const std::string& hex) {
        const auto bytes = fromHex(hex);
        return parseKernelAccessList({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    };
    const auto parsed = parse(version + owner + "0200 0400 feffffff" + user + group + mask + others);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(accessListText(*parsed), "user::rw-\nuser:7:r--\nuser:4294967294:r--\ngroup::r--\nmask::r--\nother::r--");
    EXPECT_EQ(parse(""), AccessList());
    const std::pair<const char*, std::string> refused[] = {
        {"version", "01000000" + owner + group + others},
        {"cut", version + owner + group + others.substr(0, 12)},
        {"tag", version + owner + group + others + "4000 0400 ffffffff"},
        {"two tags", version + owner + group + others + "1800 0400 ffffffff"},
        {"permissions", version + owner + group + "2000 0800 ffffffff"},
        {"id that is not mapped", version + owner + "0200 0400 ffffffff" + group + mask + others},
        {"id twice", version + owner + user + user + group + mask + others},
        {"no mask", version + owner + user + group + others},
    };
    for (const auto& [name, value] : refused) EXPECT_FALSE(parse(value)) << name;
}

TEST(FieldTable, RefusesUnknownRepeatedAndEmptyKeys) {
    EXPECT_EQ(parseFieldKeys("DAT"), fieldBit("DAT"));
    EXPECT_EQ(parseFieldKeys("UID,ACL"), fieldBit("UID") | fieldBit("ACL"));
    for (const char* keys : {"", "UID,", ",UID", "UID,UID", "UID,XXX", "uid"})
        EXPECT_FALSE(parseFieldKeys(keys)) << keys;
}

}  // namespace
