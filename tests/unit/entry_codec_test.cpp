// Values at their bounds. The replay of entry_codec_fuzz checks that each payload has one form only.
#include "qvx/format/entry_codec.h"

#include <gtest/gtest.h>

#include "qvx/format/field_table.h"
#include "qvx/format/index_codec.h"
#include "unit/hex.h"

using namespace tarnwick::qvx;
using namespace std::literals;
using tarnwick::test::fromHex;

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

TEST(EntryCodec, RefusesTheFirstValuePastABound) {
    const std::tuple<const char*, bool (*)(Bytes), const char*, const char*> bounds[] = {
        {"type of an entry", head, "0003016100", "0004016100"},
        {"no type", head, "0001016100", "0000016100"},
        {"mode", head, "0001016104ff1f", "00010161048020"},
        {"user id", head, "0001016101ffffffff0f", "00010161018080808010"},
        {"name of an attribute", tail, "1001016100", "10010000"},
        {"count of attributes", tail, "1001016100", "1002016100"},
        {"64 bits", hole, "ffffffffffffffffff01", "ffffffffffffffffff02"},
        {"length of a hole", hole, "01", "00"},
        {"offset of an index part", root, "000100 00 ffff3f 00", "000100 00 808040 00"},
        {"shortest block", root, "00000111", "00000110"},
        {"longest block", root, "000001908040", "000001918040"},
        {"count of index parts", root, "000000", "000100"},
        {"count of index entries", isPart, "0001 0000 01 00 0161 00 00 00 00 00", "0000"},
        {"entry number", isPart, "0001 0000 01 00 0161 00 00 00 00 00",
         "ffffffffffffffffff01 01 0000 01 00 0161 00 00 00 00 00"},
        {"extent without a length", tail, "40010001", "40010000"},
        {"adjacent extents", tail, "400200010101", "400200010001"},
        {"length past the largest content", tail, "400100ffffffffffffffff7f", "400101ffffffffffffffff7f"},
        {"offset past the largest content", tail, "4001feffffffffffffff7f01", "4001ffffffffffffffffff0101"},
    };
    for (const auto& [name, decodes, valid, refused] : bounds) {
        EXPECT_TRUE(decodes(fromHex(valid))) << name;
        EXPECT_FALSE(decodes(fromHex(refused))) << name;
    }
}

TEST(EntryCodec, RefusesMoreItemsThanTheirLimit) {
    EntryTail extents, attributes, value;
    extents.unreadable.emplace();
    for (std::size_t i = 0; i < maxUnreadableExtents; ++i) extents.unreadable->push_back({2 * i, 1});
    attributes.attributes.emplace(65536, ExtendedAttribute{"a", ""});
    value.attributes = {{"a", std::string(maxEndLength - 7, 'x')}};  // 7: bits, count, name, length of the value
    EXPECT_TRUE(isTail(extents) && isTail(attributes) && isTail(value));
    extents.unreadable->push_back({2 * maxUnreadableExtents, 1});
    attributes.attributes->push_back({"a", ""});
    value.attributes->front().value += 'x';
    EXPECT_FALSE(isTail(extents) || isTail(attributes) || isTail(value));
}

TEST(EntryCodec, RefusesPathsThatLeadElsewhere) {
    const std::string longest(4095, 'x');
    for (const auto& path : {""s, "a/..b"s, ".../c"s, longest}) EXPECT_TRUE(isEntryPath(path)) << path;
    for (const auto& path : {"/a"s, "a/"s, "a//b"s, ".."s, "a/../b"s, "./a"s, "a\0b"s, longest + 'x'})
        EXPECT_FALSE(isEntryPath(path)) << path;
}

TEST(EntryCodec, RefusesAccessListsOfNames) {
    const auto isList = [](const std::string& list) {
        EntryTail fields;
        fields.accessLists = {"", list};
        return isTail(fields);
    };
    for (const char* list : {"", "user::rwx", "user::rw-\nuser:4294967295:--x\ngroup::---\nmask::r-x\nother::---\n"})
        EXPECT_TRUE(isList(list)) << list;
    for (const char* list : {"user:daemon:rwx", "user:1:rwx,user:root:rwx", "default:user:1:rwx", "user:1:rwxx", "\n",
                             "u:1:rwx", "user:1", "user: 1:rwx", "user:1:rw#", "user:1:rwx #"})
        EXPECT_FALSE(isList(list)) << list;
}

TEST(FieldTable, RefusesUnknownRepeatedAndEmptyKeys) {
    EXPECT_EQ(parseFieldKeys("DAT"), fieldBit("DAT"));
    EXPECT_EQ(parseFieldKeys("UID,ACL"), fieldBit("UID") | fieldBit("ACL"));
    for (const char* keys : {"", "UID,", ",UID", "UID,UID", "UID,XXX", "uid"})
        EXPECT_FALSE(parseFieldKeys(keys)) << keys;
}

}  // namespace
