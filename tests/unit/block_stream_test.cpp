#include "platform/archive/block_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

using namespace tarnwick::qvx;

namespace {

using Buffer = std::vector<std::uint8_t>;

constexpr std::size_t blocks = 8;

// Little to tell, and noise that begins a little less evenly: it is tried, and does not shrink.
struct Content {
    Content() {
        std::mt19937 dice(7);
        for (auto& byte : noise) byte = static_cast<std::uint8_t>(dice());
        for (std::size_t i = 0; i < 4096; ++i) {
            noise[i] &= 0x7f;
            text[i] = static_cast<std::uint8_t>(dice());
        }
    }
    // The noise comes before the third group begins.
    void fill(BlockStream& stream) const {
        for (std::size_t block = 0; block + 1 < blocks; ++block) stream.put(block == 5 ? noise : text);
    }

    Buffer text = Buffer(blockSize, 't'), noise = text;
};

TEST(BlockStream, WritesTheSameBytesInOrderAndNeverHangsOnASinkThatFails) {
    const Content content;
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
            content.fill(stream);
            EXPECT_EQ(stream.finish(Buffer(36)), failing < blocks ? -ENOSPC : 0);
            EXPECT_EQ(calls, std::min(failing + 1, blocks)) << "nothing is written behind a gap";
        }
        if (first.empty()) first = file;
        EXPECT_TRUE(file == first) << workers;
        BlockStream unfinished(HpkeKeys(), 3, workers, [](Bytes) { return 0; });
        content.fill(unfinished);
    }
}

}  // namespace
