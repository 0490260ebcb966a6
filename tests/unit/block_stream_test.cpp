#include "platform/archive/block_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

using namespace tarnwick::qvx;

namespace {

using Buffer = std::vector<std::uint8_t>;

constexpr std::size_t blocks = 8;

// The block before the third leader is tried and does not shrink: noise that begins a little less evenly.
void fill(BlockStream& stream) {
    Buffer text(blockSize, 't'), noise(blockSize);
    std::generate(noise.begin(), noise.end(), [dice = std::mt19937(7)]() mutable { return std::uint8_t(dice()); });
    std::for_each(noise.begin(), noise.begin() + 4096, [](auto& byte) { byte &= 0x7f; });
    for (std::size_t block = 0; block + 1 < blocks; ++block) stream.put(block == 5 ? noise : text);
}

TEST(BlockStream, WritesTheSameBytesInOrderAndNeverHangsOnASinkThatFails) {
    Buffer first;
    for (const unsigned workers : {1U, 2U, 8U}) {
        Buffer file;
        for (std::size_t failing = 0; failing <= blocks; ++failing) {
            std::size_t calls = 0;
            file.clear();
            BlockStream stream(HpkeKeys(), 3, workers, [&](Bytes bytes) {
                EXPECT_EQ(decodeBlockHeader(bytes)->sequence, calls);  // and a race, if two are at the sink
                file.insert(file.end(), bytes.begin(), bytes.end());
                return calls++ == failing ? -ENOSPC : 0;
            });
            fill(stream);
            EXPECT_EQ(stream.finish(Buffer(36)), failing < blocks ? -ENOSPC : 0);
            EXPECT_EQ(calls, std::min(failing + 1, blocks)) << "nothing is written behind a gap";
        }
        if (first.empty()) first = file;
        EXPECT_TRUE(file == first) << workers;
        BlockStream unfinished(HpkeKeys(), 3, workers, [](Bytes) { return 0; });
        fill(unfinished);
    }
}

}  // namespace
