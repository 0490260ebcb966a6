#include "qvx/write/block_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

using namespace tarnwick::qvx;
using tarnwick::Status;

namespace {

constexpr std::size_t blocks = 8;

TEST(BlockStream, WritesTheSameBytesInOrderAndNeverHangsOnASinkThatFails) {
    // Little to tell, and noise, which comes once more before the last group begins; and then in its half a leader's.
    std::vector<std::uint8_t> text(blockSize, 't'), noise(blockSize), first, file;
    std::ranges::generate(noise, [dice = std::mt19937(7)]() mutable { return static_cast<std::uint8_t>(dice()); });
    for (std::size_t i = 0; i < 4096; ++i) noise[i] &= 0x7f;  // tried, but it does not shrink
    auto half = text;
    std::copy_n(noise.begin(), blockSize / 2, half.begin());
    const std::vector<std::uint8_t>* const content[] = {&text, &half, &noise, &noise, &half, &text, &text};
    const auto fill = [&](BlockStream& stream) {
        for (const auto* each : content) stream.put(*each);
    };
    for (const unsigned workers : {1U, 2U, 8U}) {
        for (std::size_t failing = 0; failing <= blocks; ++failing) {
            std::size_t calls = 0;
            file.clear();
            const auto sink = [&](Bytes bytes) {
                EXPECT_EQ(decodeBlockHeader(bytes)->sequence, calls);  // and a race, if two are at the sink
                file.insert(file.end(), bytes.begin(), bytes.end());
                return calls++ == failing ? Status(tarnwick::systemError(ENOSPC)) : Status();
            };
            BlockStream stream(MessageKeys(), workers, sink, leaderForEachKind(3));
            fill(stream);
            EXPECT_EQ(bool(stream.finish(std::vector<std::uint8_t>(36))), failing == blocks);
            EXPECT_EQ(calls, std::min(failing + 1, blocks)) << "nothing is written behind a gap";
        }
        if (first.empty()) first = file;
        EXPECT_TRUE(file == first) << workers;
        BlockStream unfinished(MessageKeys(), workers, [](Bytes) { return Status(); });
        fill(unfinished);
    }
    // What only the beginning of a leader holds is referred to as well, so the noise stands there three times.
    EXPECT_LT(first.size(), 5 * blockSize / 2 + 65536);
}

// Which block leads each block; a leader leads itself.
TEST(BlockStream, GivesEachKindALeaderThatHasNothingElse) {
    constexpr auto several = std::nullopt;
    const std::optional<std::uint32_t> kinds[] = {0, 0, several, 7, 7, 7, 7, 7, several, several, several, several, 7};
    const std::vector<std::uint64_t> expected{0, 0, 0, 3, 3, 3, 3, 7, 7, 7, 7, 11, 12};
    const LeaderChoice choice = leaderForEachKind(4);
    std::vector<std::uint64_t> leaders;
    for (const auto& kind : kinds) {
        const auto role = choice.role(leaders.size(), kind);
        EXPECT_NE(role.leads, role.leader.has_value());
        leaders.push_back(role.leader.value_or(leaders.size()));
    }
    EXPECT_EQ(leaders, expected);
}

TEST(BlockStream, SharesALeaderWithBytesOfAnotherKind) {
    std::vector<bool> leads;
    const auto note = [&](Bytes block) {
        leads.push_back(decodeBlockHeader(block)->flags & blockLeader);
        return Status();
    };
    BlockStream stream(MessageKeys(), 2, note, leaderForEachKind(16));
    for (const std::uint32_t kind : {1U, 1U, 1U, 2U, 2U, 2U, 2U, 2U}) {
        stream.setKind(kind);
        stream.put(std::vector<std::uint8_t>(blockSize / 2));
    }
    ASSERT_TRUE(stream.drain());
    EXPECT_EQ(leads, (std::vector<bool>{true, false, true, false}));
}

TEST(BlockStream, FailsWhenAnArchiveWouldHaveTooManyBlocks) {
    std::size_t written = 0;
    const auto count = [&](Bytes) { return ++written, Status(); };
    for (const std::uint64_t limit : {3U, 2U}) {
        written = 0;
        BlockStream stream(MessageKeys(), 2, count, leaderForEachKind(16), limit);
        for (int i = 0; i < 2; ++i) stream.put(std::vector<std::uint8_t>(blockSize));
        const auto finished = stream.finish(std::vector<std::uint8_t>(36));
        EXPECT_LE(written, limit);
        EXPECT_EQ(finished ? 0 : finished.error().code, limit == 3 ? 0 : EFBIG);
    }
}

}  // namespace
