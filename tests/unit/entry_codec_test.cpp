// The replay of entry_codec_fuzz holds every decoder to the one form of each payload, under every damage. This is what
// it cannot know.
#include "qvx/format/entry_codec.h"

#include <gtest/gtest.h>

#include "unit/hex.h"

using namespace tarnwick::qvx;
using tarnwick::test::fromHex;

namespace {

TEST(EntryCodec, RefusesPathsThatLeadElsewhereAndNumbersOutOfRange) {
    for (const std::string& path : std::vector<std::string>{"", "a/..b", ".../c", std::string(4095, 'x')})
        EXPECT_TRUE(isEntryPath(path)) << path;
    for (const std::string& path : std::vector<std::string>{"/a", "a/", "a//b", "..", "a/../b", "./a",
                                                            std::string("a\0b", 3), std::string(4096, 'x')})
        EXPECT_FALSE(isEntryPath(path)) << path;
    EXPECT_EQ(decodeHole(fromHex("ffffffffffffffffff01")), ~std::uint64_t{0});
    for (const char* hole : {"00", "8100", "ffffffffffffffffff02"}) EXPECT_FALSE(decodeHole(fromHex(hole))) << hole;
    const auto isHead = [](EntryType type) {
        EntryHead head;
        head.type = type;
        std::vector<std::uint8_t> payload;
        encodeEntryHead(head, payload);
        return decodeEntryHead(payload).has_value();
    };
    EXPECT_TRUE(isHead(EntryType::directory));
    EXPECT_FALSE(isHead(EntryType::file) || isHead(EntryType::link)) << "the destination is a directory";
}

TEST(EntryCodec, RefusesAccessListsOfNames) {
    const auto isTail = [](const std::string& list) {
        EntryTail tail;
        tail.accessLists = {"", list};
        std::vector<std::uint8_t> payload;
        encodeEntryTail(tail, payload);
        return decodeEntryTail(payload).has_value();
    };
    for (const char* list : {"", "user::rwx", "user::rw-\nuser:4294967295:--x\ngroup::---\nmask::r-x\nother::---\n"})
        EXPECT_TRUE(isTail(list)) << list;
    for (const char* list : {"user:daemon:rwx", "user:1:rwx,user:root:rwx", "default:user:1:rwx", "user:1:rwxx", "\n",
                             "u:1:rwx", "user:1", "user: 1:rwx", "user:1:rw#", "user:1:rwx #"})
        EXPECT_FALSE(isTail(list)) << list;
}

TEST(EntryCodec, RefusesUnreadableExtentsOutOfOrderOrRange) {
    for (const char* tail : {"4000", "40010001", "400200010101", "400100ffffffffffffffff7f"})
        EXPECT_TRUE(decodeEntryTail(fromHex(tail))) << tail;
    const std::pair<const char*, const char*> refused[] = {
        {"4001", "fewer than counted"},
        {"400100", "cut"},
        {"40010000", "empty"},
        {"400200010001", "adjacent"},
        {"400101ffffffffffffffff7f", "past the largest content"},
        {"4001ffffffffffffffffff0101", "an offset past the largest content"},
        {"40020001feffffffffffffff7f01", "a second one past the largest content"},
        {"4000"
         "00",
         "more than counted"},
    };
    for (const auto& [tail, what] : refused) EXPECT_FALSE(decodeEntryTail(fromHex(tail))) << what;
    for (const std::size_t count : {4096U, 4097U}) {
        EntryTail tail;
        tail.unreadable.emplace();
        for (std::size_t i = 0; i < count; ++i) tail.unreadable->push_back({2 * i, 1});
        std::vector<std::uint8_t> payload;
        encodeEntryTail(tail, payload);
        EXPECT_EQ(decodeEntryTail(payload).has_value(), count == 4096);
    }
}

}  // namespace
