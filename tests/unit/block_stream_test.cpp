#include "platform/archive/block_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

using namespace tarnwick::qvx;

namespace {

constexpr std::size_t blocks = 8;

using Buffer = std::vector<std::uint8_t>;

HpkeKeys someKeys() {
    HpkeKeys keys;
    keys.key.fill(1);
    return keys;
}

// Puts in blocks of every kind: text, noise, and almost noise, which is tried and does not shrink. What comes to the
// sink is the stream's status.
int write(unsigned workers, const BlockStream::Sink& sink) {
    std::mt19937_64 dice(7);
    BlockStream stream(someKeys(), 3, workers, sink);
    for (std::size_t block = 0; block + 1 < blocks; ++block) {
        for (std::size_t i = 0; i < blockSize; i += 8) {
            std::array<std::uint8_t, 8> bytes{'t', 'e', 'x', 't', ' ', static_cast<std::uint8_t>(dice() % 5), 0, 0};
            if (block % 4 == 1) std::generate(bytes.begin(), bytes.end(), [&] { return std::uint8_t(dice()); });
            if (block == 5 && i < 4096) std::ranges::for_each(bytes, [](auto& byte) { byte &= 0x7f; });
            stream.put(bytes);
        }
    }
    return stream.finish(Buffer(36));
}

TEST(BlockStream, GivesTheSameBytesInOrderWithAnyNumberOfWorkers) {
    Buffer first;
    for (const unsigned workers : {1U, 2U, 8U}) {
        Buffer file;
        std::uint64_t next = 0;
        EXPECT_EQ(write(workers,
                        [&](Bytes bytes) {
                            EXPECT_EQ(decodeBlockHeader(bytes)->sequence,
                                      next++);  // and a race, if two are at the sink
                            file.insert(file.end(), bytes.begin(), bytes.end());
                            return 0;
                        }),
                  0);
        EXPECT_EQ(next, blocks);
        if (first.empty()) first = file;
        EXPECT_TRUE(file == first) << workers;
    }
    EXPECT_GT(first.size(), 2 * blockSize);
}

TEST(BlockStream, NeverHangsOnASinkThatFailsNorWithoutBeingFinished) {
    for (const unsigned workers : {1U, 2U, 8U}) {
        for (std::size_t failing = 0; failing < blocks; ++failing) {
            std::size_t calls = 0;
            EXPECT_EQ(write(workers, [&](Bytes) { return calls++ == failing ? -ENOSPC : 0; }), -ENOSPC);
            EXPECT_EQ(calls, failing + 1) << "nothing is written behind a gap";
        }
        BlockStream stream(someKeys(), 3, workers, [](Bytes) { return 0; });
        for (std::size_t i = 0; i < blocks; ++i) stream.put(Buffer(stream.room().size()));
    }
}

}  // namespace
