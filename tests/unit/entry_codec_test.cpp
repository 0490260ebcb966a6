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

bool isSound(auto decoder) {
    while (decoder.next()) continue;
    return !decoder.damaged();
}

constexpr auto head = [](Bytes payload) { return decodeEntryHead(payload).has_value(); };
constexpr auto tail = [](Bytes payload) { return decodeEntryTail(payload).has_value(); };
constexpr auto hole = [](Bytes payload) { return decodeHole(payload).has_value(); };
constexpr auto root = [](Bytes payload) { return decodeRoot(payload).has_value(); };
constexpr auto isPart = [](Bytes payload) { return isSound(IndexPartDecoder(payload)); };
constexpr auto isBlock = [](Bytes block) { return isSound(RecordCursor(block)); };

bool isTail(const EntryTail& fields) {
    std::vector<std::uint8_t> payload;
    encodeEntryTail(fields, payload);
    return tail(payload);
}

using Strings = std::vector<std::string>;

const std::string digest(64, '7');

// Valid payloads, then what is wrong with others: "NAME: PAYLOAD".
TEST(EntryCodec, RefusesTheFirstValuePastABound) {
    const std::tuple<bool (*)(Bytes), Strings, Strings> bounds[] = {
        {head,
         {"0003016100", "0001016100", "0081016100", "00020000", "000101614000", "0001016101feffffff0f",
          "0001016102feffffff0f", "0001016104ff1f", "0001016108ffffffff0f", "00010161100000000000000000",
          "0001016120ffffffffffffffffff01", "feffffff0f 01 016100"},
         {"type of an entry: 0004016100", "no type: 0000016100", "digest of a folder: 0082016100",
          "empty path of a file: 00010000", "cut path: 00010261", "unknown field: 000101618001",
          "longer form of the fields: 000101618000", "byte after the last field: 000101610000",
          "user id: 0001016101ffffffff0f", "group id: 0001016102ffffffff0f", "mode: 00010161048020",
          "flags: 00010161088080808010", "cut time: 000101611000000000000000",
          "change time: 0001016120ffffffffffffffffff02", "entry number: ffffffff0f 01 016100"}},
        {hole,
         {"ffffffffffffffffff01", "01"},
         {"64 bits: ffffffffffffffffff02", "length of a hole: 00", "byte after a hole: 0100"}},
        {tail,
         {"4000", "00", "01" + digest, "020000", "0400", "440000", "0c00", "04feffffff0f"},
         {"unknown field of END: c00100", "byte after END: 0000", "cut digest: 01" + digest.substr(2),
          "size without holes: 0200", "reference with digest: 05" + digest + "00", "reference with size: 06000000",
          "reference with lost content: 4400010001", "hard link without reference: 08",
          "entry with the content: 04ffffffff0f"}},
        {tail,
         {"100106757365722e6100", "100107757365722e616200", "100206757365722e610006757365722e6200"},
         {"name without rest: 100105757365722e00", "name of another kind: 100106746573742e6100",
          "zero byte in a name: 100107757365722e610000", "no attributes: 1000",
          "more attributes than bytes: 100206757365722e6100", "attribute twice: 100206757365722e610006757365722e6100",
          "attributes in no order: 100206757365722e620006757365722e6100"}},
        {tail,
         {"200306142c00", "2005060c0714242c00", "200506141c07242c00", "200406142428 00", "2005060cfeffffff0f14242c00",
          "2006060c070c0814242c00", "200003 06142c"},
         {"no lists: 200000", "list without others: 2002061400", "list without owning group: 2002062c00",
          "two owners: 200406070614 2c00", "list in another order: 200314062c00", "unknown kind: 200406142c3400",
          "bit 6 of an entry: 200346142c00", "bit 7 of an entry: 200306 94 2c00", "user without mask: 2004060c07142c00",
          "group without mask: 200406141c072c00", "two masks: 20050614242c 2c00", "no id: 2005060cffffffff0f14242c00",
          "id twice: 2006060c070c0714242c00", "ids in no order: 2006060c080c0714242c00",
          "more entries than bytes: 200406142c00", "default list: 200003 06142d2c"}},
        {tail,
         {"40010001", "400200010101", "400100ffffffffffffffff7f", "4001feffffffffffffff7f01"},
         {"extent without a length: 40010000", "adjacent extents: 400200010001",
          "length past the largest content: 400101ffffffffffffffff7f",
          "offset past the largest content: 4001ffffffffffffffffff0101"}},
        {isBlock,
         {"02000000 000000", "40010000 aa 000000", "7e000000 000000", "02080000 0000000000000000",
          "84080000 0000000000000000", "84050000 0000000000000000", "00080000 0000000000000000",
          "02060000 000000000000 0000"},
         {"type of a record: 08000000 000000", "first addition: 3f010000 aa 000000", "last addition: 7f000000 000000",
          "record past the block: 02090000 0000000000000000", "split data: 82080000 0000000000000000",
          "split addition: c0080000 0000000000000000", "split end with space left: 84040000 0000000000000000"}},
        {root,
         {"010100 00 ffff3f 00", "010100 ffff7f 00 00", "020100 00 00 00", "810102 00 00 00 8001 00 01 00", "000000",
          "00000111", "000001908040"},
         {"offset of an index part: 010100 00 808040 00", "block of an index part: 010100 80808001 00 00",
          "first index part: 020101 00 00 00", "index part of 128 entries: 810102 00 00 00 7f 00 01 00",
          "last index part: 810102 00 00 00 8101 00 01 00", "two index parts at a place: 810102 00 00 01 8001 00 00 01",
          "no index part: 010000", "shortest block: 00000110", "longest block: 000001918040",
          "count of index parts: 010100"}},
        {isPart,
         {"0001 000000 01 00 0161 00 00 00 00 00", "feffffff0f 01 000000 01 00 0161 00 00 00 00 00",
          "0001 feffff010000 01 00 0161 00 00 00 00 00", "0001 0000ffff7f 01 00 0161 00 00 00 00 00",
          "0001 000000 01 00 0161 00 00 00 ffffffffffffffff7f 00", "0001 000000 02 00 0161 00 00 00 00 00",
          "0001 000000 03 00 0161 00 00 00 ff1f 00", "0001 000000 83 00 0161 00 00 00 00 00"},
         {"count of index entries: 0000", "entry number in the index: ffffffff0f 01 000000 01 00 0161 00 00 00 00 00",
          "block of an entry: 0001 808080020000 01 00 0161 00 00 00 00 00",
          "block before the first: 0001 010000 01 00 0161 00 00 00 00 00",
          "span of an entry: 0001 000080808001 01 00 0161 00 00 00 00 00",
          "size of an entry: 0001 000000 01 00 0161 00 00 00 80808080808080808001 00",
          "size of a folder: 0001 000000 02 00 0161 00 00 00 01 00",
          "empty target: 0001 000000 03 00 0161 00 00 00 00 00",
          "long target: 0001 000000 03 00 0161 00 00 00 8020 00"}},
    };
    for (const auto& [decodes, valid, refused] : bounds) {
        for (const auto& payload : valid) EXPECT_TRUE(decodes(fromHex(payload))) << payload;
        for (const auto& fault : refused) EXPECT_FALSE(decodes(fromHex(fault.substr(fault.find(':') + 1)))) << fault;
    }
}

EntryTail attributesOf(std::size_t count, std::size_t bytes) {
    EntryTail fields{.attributes = std::vector<ExtendedAttribute>(count)};
    for (auto& [name, value] : *fields.attributes) {
        name = "user." + std::to_string(200000 - count--);
        value.assign(std::min(bytes, maxAttributeValueLength), 'x');
        bytes -= value.size();
    }
    return fields;
}

AccessList listOf(std::size_t count) {
    AccessList list{{Kind::owner, 7}};
    while (list.size() < count - 3) list.push_back({Kind::user, 7, static_cast<std::uint32_t>(list.size())});
    for (const auto kind : {Kind::owningGroup, Kind::mask, Kind::others}) list.push_back({kind, 7});
    return list;
}

TEST(EntryCodec, RefusesMoreItemsThanTheirLimit) {
    std::vector<Extent> extents;
    for (std::size_t i = 0; i <= maxUnreadableExtents; ++i) extents.push_back({2 * i, 1});
    const std::vector<Extent> withoutLast(extents.begin(), extents.end() - 1);
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
