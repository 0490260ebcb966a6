#include "platform/archive/block_stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <random>

using namespace tarnwick::qvx;

namespace {

constexpr std::uint32_t groupLength = 3;
constexpr std::size_t blocks = 8;

HpkeKeys someKeys() {
    HpkeKeys keys;
    keys.key.fill(1);
    return keys;
}

// Fills blocks with something of every kind: noise, text, and what was there before.
void fill(BlockStream& stream) {
    std::mt19937_64 dice(7);
    for (std::size_t block = 0; block + 1 < blocks; ++block) {
        for (std::size_t i = 0; i < blockSize; i += 8) {
            std::array<std::uint8_t, 8> bytes{'t', 'e', 'x', 't', ' ', static_cast<std::uint8_t>(dice() % 5), 0, 0};
            if (block % 4 == 1) std::generate(bytes.begin(), bytes.end(), [&] { return std::uint8_t(dice()); });
            stream.put(bytes);
        }
    }
}

std::vector<std::uint8_t> written(unsigned workers) {
    std::vector<std::uint8_t> file;
    BlockStream stream(someKeys(), groupLength, workers, [&](Bytes bytes) {
        file.insert(file.end(), bytes.begin(), bytes.end());
        return 0;
    });
    fill(stream);
    EXPECT_EQ(stream.finish(std::vector<std::uint8_t>(36)), 0);
    EXPECT_EQ(stream.sealedLengths().size(), blocks);
    return file;
}

TEST(BlockStream, GivesTheSameBytesWithAnyNumberOfWorkers) {
    const auto one = written(1);
    EXPECT_GT(one.size(), 2 * blockSize);
    EXPECT_TRUE(one == written(2));
    EXPECT_TRUE(one == written(8));
}

TEST(BlockStream, NeverHangsOnASinkThatFails) {
    for (const unsigned workers : {1U, 2U, 8U}) {
        for (std::size_t failing = 0; failing < blocks; ++failing) {
            std::size_t calls = 0;
            BlockStream stream(someKeys(), groupLength, workers,
                               [&](Bytes) { return calls++ == failing ? -ENOSPC : 0; });
            fill(stream);
            EXPECT_EQ(stream.finish(std::vector<std::uint8_t>(36)), -ENOSPC);
            EXPECT_EQ(calls, failing + 1) << "nothing is written behind a gap";
        }
    }
}

TEST(BlockStream, EndsWithoutBeingFinished) {
    for (const unsigned workers : {1U, 8U}) {
        BlockStream stream(someKeys(), groupLength, workers, [](Bytes) { return 0; });
        fill(stream);
    }
}

TEST(BlockStream, CallsTheSinkOnceAtATimeAndInOrder) {
    std::atomic<int> inside = 0;
    std::uint64_t next = 0;
    BlockStream stream(someKeys(), groupLength, 8, [&](Bytes bytes) {
        EXPECT_EQ(inside++, 0);
        EXPECT_EQ(decodeBlockHeader(bytes)->sequence, next++);
        --inside;
        return 0;
    });
    fill(stream);
    EXPECT_EQ(stream.finish(std::vector<std::uint8_t>(36)), 0);
    EXPECT_EQ(next, blocks);
}

}  // namespace
