// Single blocks: their headers, their frames, and the leaders that they name.
#include "qvx/read/block_reader.h"

#include <gtest/gtest.h>
#include <zstd.h>

#include <random>

#include "qvx/read/stream_source.h"
#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;

namespace {

const ByteVector plain(blockSize, 't');

TEST(BlockHeader, RejectsEveryFieldThatThePageDoesNotAllow) {
    constexpr std::uint32_t raw = blockSize + tagSize, last = 52;
    constexpr std::uint8_t dictionary = blockCompressed | blockWithDictionary;
    const std::tuple<const char*, BlockHeader, BlockHeader> bounds[] = {
        {"short", {raw, 0, 1}, {raw - 1, 0, 1}},
        {"long", {raw, 0, 1}, {raw + 1, 0, 1}},
        {"no frame", {17, blockCompressed, 1}, {16, blockCompressed, 1}},
        {"frame of a block", {raw - 1, blockCompressed, 1}, {raw, blockCompressed, 1}},
        {"too high a number", {raw, 0, maxBlocks - 1}, {raw, 0, maxBlocks}},
        {"unknown flag", {raw, blockLeader, 1}, {raw, 0x10, 1}},
        {"last, of another length", {last, blockLast, 1}, {last + 1, blockLast, 1}},
        {"last, compressed", {last, blockLast, 1}, {last, blockLast | blockCompressed, 1}},
        {"last, a leader", {last, blockLast, 1}, {last, blockLast | blockLeader, 1}},
        {"raw, with dictionary", {raw, 0, 2}, {raw, blockWithDictionary, 2, 1}},
        {"leader needs a leader", {100, blockLeader | blockCompressed, 1}, {100, blockLeader | dictionary, 2, 1}},
        {"its own leader", {100, dictionary, 2, 1}, {100, dictionary, 2, 2}},
        {"leader comes later", {100, dictionary, 2, 1}, {100, dictionary, 2, 3}},
        {"names a leader without need", {100, blockCompressed, 2}, {100, blockCompressed, 2, 1}},
    };
    for (const auto& [name, valid, refused] : bounds) {
        EXPECT_TRUE(decodeBlockHeader(encodeBlockHeader(valid))) << name;
        EXPECT_FALSE(decodeBlockHeader(encodeBlockHeader(refused))) << name;
    }
    auto bytes = encodeBlockHeader({raw, 0, 1});
    EXPECT_FALSE(decodeBlockHeader(Bytes(bytes).first(blockHeaderSize - 1)));
    bytes[0] ^= 1;
    EXPECT_FALSE(decodeBlockHeader(bytes));
}

// Seals `stored` as block 1, and opens it again.
BlockFault faultOf(ByteVector stored, std::uint8_t flags, const ByteVector& leader = {}) {
    const BlockHeader header{static_cast<std::uint32_t>(stored.size() + tagSize), flags, 1};
    const std::size_t length = stored.size();
    stored.resize(length + tagSize);
    const auto all = MutableBytes(stored);
    MessageCipher(MessageKeys(), MessageCipher::Direction::seal)
        .seal(1, encodeBlockHeader(header), all.first(length), all.last<tagSize>());
    BlockDecoder decoder{MessageKeys()}, copying{MessageKeys()};
    const Bytes copy = leader.empty() ? Bytes() : copying.copyLeader(leader);
    auto again = stored;
    ByteVector opened, copied;
    const auto fault = decoder.decode(header, stored, leader, opened);
    EXPECT_EQ(fault, copying.decode(header, again, copy, copied));
    EXPECT_TRUE(opened == copied || fault != BlockFault::none);
    EXPECT_TRUE(fault != BlockFault::none || flags == blockLast || opened == plain);
    return fault;
}

using Parameters = std::vector<std::pair<ZSTD_cParameter, int>>;

ByteVector compressed(const Parameters& parameters, const ByteVector& content = plain, const ByteVector& prefix = {}) {
    const std::unique_ptr<ZSTD_CCtx, FreeWith<ZSTD_freeCCtx>> context(ZSTD_createCCtx());
    for (const auto& [name, value] : parameters) ZSTD_CCtx_setParameter(context.get(), name, value);
    if (!prefix.empty()) ZSTD_CCtx_refPrefix(context.get(), prefix.data(), prefix.size());
    ByteVector frame(ZSTD_compressBound(content.size()));
    frame.resize(ZSTD_compress2(context.get(), frame.data(), frame.size(), content.data(), content.size()));
    return frame;
}

TEST(BlockDecoder, RejectsEveryFrameButTheOneOfThePage) {
    const ByteVector frame = compressed({}), skippable{0x50, 0x2a, 0x4d, 0x18, 0, 0, 0, 0};
    const ByteVector half(blockSize / 2, 't'), twice(2 * blockSize, 't');
    auto otherSize = frame;
    otherSize[6] ^= 1;
    const auto frames = {
        std::pair("one with a checksum", compressed({{ZSTD_c_checksumFlag, 1}})),
        std::pair("one without its size", compressed({{ZSTD_c_contentSizeFlag, 0}})),
        std::pair("one of half a block", compressed({}, half)),
        std::pair("two of half a block", joined(compressed({}, half), compressed({}, half))),
        std::pair("one of two blocks", compressed({}, twice)),
        std::pair("two frames", joined(frame, frame)),
        std::pair("a skippable frame after it", joined(frame, skippable)),
        std::pair("a skippable frame before it", joined(skippable, frame)),
        std::pair("a byte after it", joined(frame, {0})),
        std::pair("a cut one", ByteVector(frame.begin(), frame.end() - 1)),
        std::pair("one that states another size", otherSize),
        std::pair("none", ByteVector{0}),
    };
    EXPECT_EQ(faultOf(frame, blockCompressed), BlockFault::none);
    for (const auto& [name, bytes] : frames) EXPECT_EQ(faultOf(bytes, blockCompressed), BlockFault::content) << name;
    EXPECT_EQ(faultOf(half, 0), BlockFault::content) << "a short block";
    EXPECT_EQ(faultOf(half, blockLast), BlockFault::none);
    EXPECT_EQ(faultOf(plain, blockLast), BlockFault::content) << "a last block that is full";
}

TEST(BlockDecoder, UsesALeaderAsRawContentEvenIfItLooksLikeATrainedDictionary) {
    ByteVector leader = plain;
    std::ranges::copy(ByteVector{0x37, 0xa4, 0x30, 0xec}, leader.begin());
    const auto frame = compressed({}, plain, leader);
    EXPECT_EQ(faultOf(frame, blockCompressed | blockWithDictionary, leader), BlockFault::none);
}

// Otherwise it would depend on the block before whether a block is damaged.
TEST(BlockDecoder, UsesNoLeaderThatTheBlockDoesNotName) {
    ByteVector noise(blockSize);
    std::ranges::generate(noise, [random = std::mt19937()]() mutable { return static_cast<std::uint8_t>(random()); });
    ByteVector rotated = noise;
    std::rotate(rotated.begin(), rotated.begin() + blockSize / 2, rotated.end());
    EXPECT_EQ(faultOf(compressed({}, rotated, noise), blockCompressed, noise), BlockFault::content);
}

using Role = LeaderChoice::Role;
using Numbers = std::vector<std::uint64_t>;

// A file of blocks with these roles. A leader is whatever block is named.
struct BlockFile {
    explicit BlockFile(const std::vector<Role>& roles) {
        BlockEncoder encoder{keys};
        for (const auto& [leads, leader] : roles) {
            ByteVector block(BlockEncoder::capacity);
            const Dictionary dictionary{leader.value_or(0), plain};
            const BlockRole role{false, leads, leader ? &dictionary : nullptr};
            block.resize(encoder.encode(map.end(), role, plain, block.data()));
            map.add({map.end(), bytes.size()});
            bytes = joined(std::move(bytes), block);
        }
        file = archiveFile(bytes);
    }
    // The numbers of the blocks that cannot be opened, in the order of the file.
    [[nodiscard]] Numbers damaged(const BlockMap* leaders) const {
        Numbers numbers;
        BlockPipeline pipeline(*file, keys, MappedBlocks(*file, map), leaders);
        while (const auto block = pipeline.next())
            if (block->fault) numbers.push_back(block->place.sequence);
        return numbers;
    }
    [[nodiscard]] Numbers damagedAtRandom() const {
        Numbers numbers;
        RandomBlocks random(*file, keys, map);
        for (std::uint64_t i = map.end(); i-- > 0;)
            if (random.get(i)->fault) numbers.insert(numbers.begin(), i);
        return numbers;
    }

    const MessageKeys keys;
    ByteVector bytes;
    BlockMap map;
    std::unique_ptr<ArchiveFile> file;
};

TEST(BlockPipeline, RejectsABlockWhoseLeaderIsNotOneOfTheLastSixteen) {
    std::vector<Role> roles(17, {true});
    roles.insert(roles.end(), {{false, 1}, {false, 16}, {false, 0}, {true}, {false, 1}, {false, 4}});
    const BlockFile blocks(roles);
    EXPECT_EQ(blocks.damaged(nullptr), (Numbers{19, 21}));
    EXPECT_EQ(blocks.damagedAtRandom(), Numbers{}) << "each block with its leader, wherever that is";
}

// A leader that was dropped could not be read again.
TEST(BlockPipeline, KeepsTheLastSixteenLeadersOfAStream) {
    std::vector<Role> roles(maxLeaders, {true});
    for (std::uint64_t i = 0; i < 2 * maxLeaders; ++i) roles.push_back({false, i % maxLeaders});
    const BlockFile blocks(roles);
    const ArchiveFile stream(openStreamSource(memoryFile(blocks.bytes), [] { return false; }));
    BlockPipeline pipeline(stream, blocks.keys, AllBlocks(stream));
    for (std::size_t i = 0; i < roles.size(); ++i) EXPECT_FALSE(pipeline.next()->fault) << i;
}

TEST(BlockPipeline, RejectsABlockWhoseLeaderIsNone) {
    const BlockFile blocks({{true}, {false, 0}, {false, 1}, {false, 2}, {}, {false, 4}, {false, 0}});
    for (const auto& numbers : {blocks.damaged(nullptr), blocks.damaged(&blocks.map), blocks.damagedAtRandom()})
        EXPECT_EQ(numbers, (Numbers{2, 3, 5}));
}

}  // namespace
