// That the bytes are the same with any number of workers is for the library's test to say.
#include "platform/archive/block_stream.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace tarnwick::qvx;

namespace {

constexpr std::size_t blocks = 8;

void fill(BlockStream& stream) {
    for (std::size_t block = 0; block + 1 < blocks; ++block)
        stream.put(std::vector<std::uint8_t>(stream.room().size()));
}

TEST(BlockStream, WritesInOrderAndNeverHangsOnASinkThatFails) {
    for (const unsigned workers : {1U, 2U, 8U}) {
        for (std::size_t failing = 0; failing <= blocks; ++failing) {
            std::size_t calls = 0;
            BlockStream stream(HpkeKeys(), 3, workers, [&](Bytes bytes) {
                EXPECT_EQ(decodeBlockHeader(bytes)->sequence, calls);  // and a race, if two are at the sink
                return calls++ == failing ? -ENOSPC : 0;
            });
            fill(stream);
            EXPECT_EQ(stream.finish(std::vector<std::uint8_t>(36)), failing < blocks ? -ENOSPC : 0);
            EXPECT_EQ(calls, std::min(failing + 1, blocks)) << "nothing is written behind a gap";
        }
        BlockStream unfinished(HpkeKeys(), 3, workers, [](Bytes) { return 0; });
        fill(unfinished);
    }
}

}  // namespace
