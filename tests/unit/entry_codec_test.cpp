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
}

}  // namespace
