// The replay of entry_codec_fuzz holds every decoder to the one form of each payload, under every damage. This is what
// it cannot know.
#include "platform/archive/entry_codec.h"

#include <gtest/gtest.h>

#include <limits>

#include "unit/hex.h"

using namespace tarnwick::qvx;
using tarnwick::test::fromHex;

namespace {

TEST(EntryCodec, RefusesPathsThatLeadElsewhere) {
    for (const std::string& path : std::vector<std::string>{"", "a", "a/..b", ".../c", std::string(4095, 'x')})
        EXPECT_TRUE(isEntryPath(path)) << path;
    for (const std::string& path : std::vector<std::string>{"/a", "a/", "a//b", "..", "a/../b", "./a",
                                                            std::string("a\0b", 3), std::string(4096, 'x')}) {
        EntryHead head;
        head.path = path;
        std::vector<std::uint8_t> payload;
        encodeEntryHead(head, payload);
        EXPECT_FALSE(decodeEntryHead(payload)) << path;
    }
}

TEST(EntryCodec, RefusesNumbersOutOfRange) {
    EXPECT_FALSE(decodeHole(fromHex("00")));
    EXPECT_FALSE(decodeHole(fromHex("8100"))) << "a longer form than needed";
    EXPECT_FALSE(decodeHole(fromHex("ffffffffffffffffff02"))) << "66 bits";
    EXPECT_EQ(decodeHole(fromHex("ffffffffffffffffff01")), std::numeric_limits<std::uint64_t>::max());
    EXPECT_FALSE(decodeRoot(fromHex("00ffffffffffffffff7f"))) << "more parts than bytes";
    EXPECT_FALSE(decodeEntryTail(fromHex("10ffffff7f"))) << "more attributes than bytes";
}

TEST(RecordCursor, StopsAtWhatIsNoRecord) {
    const struct {
        const char* block;
        std::size_t records;
        bool damaged;
    } cases[] = {
        {"0201000061000000", 1, false},        // too few bytes left for a record
        {"0201000061020000", 1, true},         // and they are something
        {"020100006100000000", 1, false},      // padding of no bytes
        {"0201000061000200000000", 1, false},  // padding up to the end
        {"0201000061000100000000", 1, true},   // padding that ends before the block does
        {"02020000", 0, true},                 // longer than the block
        {"08000000", 0, true},                 // no such type
        {"8201000061", 0, true},               // only some types may go on in the next block
        {"8402000061620000", 1, false},
        {"0201000061000200000001", 1, true},  // padding that is something
        {"84020000616200000000", 0, true},    // goes on although there is room for another record
    };
    for (const auto& [block, expected, damaged] : cases) {
        const auto bytes = fromHex(block);
        RecordCursor cursor(bytes);
        std::size_t records = 0;
        while (cursor.next()) ++records;
        EXPECT_EQ(records, expected) << block;
        EXPECT_EQ(cursor.damaged(), damaged) << block;
    }
}

}  // namespace
