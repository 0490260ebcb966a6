// The replay of entry_codec_fuzz holds every decoder to the one form of each payload, under every damage. This is what
// it cannot know.
#include "platform/archive/entry_codec.h"

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
    EXPECT_FALSE(decodeRoot(fromHex("00ffffffffffffffff7f"))) << "more parts than bytes";
    EXPECT_FALSE(decodeEntryTail(fromHex("10ffffff7f"))) << "more attributes than bytes";
}

TEST(RecordCursor, StopsAtWhatIsNoRecord) {
    const std::tuple<const char*, std::size_t, bool> cases[] = {
        {"0201000061000000", 1, false},        // too few bytes left for a record
        {"0201000061020000", 1, true},         // and they are something
        {"0201000061000200000000", 1, false},  // padding up to the end
        {"0201000061000100000000", 1, true},   // padding that ends before the block does
        {"0201000061000200000001", 1, true},   // padding that is something
        {"02020000", 0, true},                 // longer than the block
        {"08000000", 0, true},                 // no such type
        {"8201000061", 0, true},               // only some types may go on in the next block
        {"8402000061620000", 1, false},        // as this one does
        {"84020000616200000000", 0, true},     // although there is room for another record
    };
    for (const auto& [block, expected, damaged] : cases) {
        const auto bytes = fromHex(block);
        RecordCursor cursor(bytes);
        std::size_t records = 0;
        while (cursor.next()) ++records;
        EXPECT_EQ(std::pair(records, cursor.damaged()), std::pair(expected, damaged)) << block;
    }
}

}  // namespace
