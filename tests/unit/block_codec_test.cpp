#include "platform/archive/block_codec.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace tarnwick::qvx;

namespace {

using Buffer = std::vector<std::uint8_t>;

HpkeKeys someKeys() {
    HpkeKeys keys;
    keys.key.fill(3);
    keys.baseNonce.fill(5);
    return keys;
}

Buffer random(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    Buffer bytes(size);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(generator());
    return bytes;
}

GroupDictionary dictionaryOf(std::uint64_t sequence, const Buffer& leader) {
    const Bytes part = dictionaryPart(leader);
    return {sequence, {part.begin(), part.end()}};
}

Buffer encode(std::uint64_t sequence, bool last, const Buffer& plain, const Buffer* leader = nullptr) {
    BlockEncoder encoder(someKeys());
    Buffer out(BlockEncoder::capacity);
    const auto dictionary = leader ? dictionaryOf(0, *leader) : GroupDictionary{};
    out.resize(encoder.encode(sequence, last, plain, leader ? &dictionary : nullptr, out.data()));
    return out;
}

BlockFault decode(Buffer block, const Buffer& leader, Buffer& plain) {
    const auto header = decodeBlockHeader(block);
    if (!header || header->sealedLength != block.size() - blockHeaderSize) return BlockFault::seal;
    return BlockDecoder(someKeys()).decode(*header, MutableBytes(block).subspan(blockHeaderSize), leader, plain);
}

TEST(BlockCodec, GivesBackEveryKindOfBlock) {
    const Buffer text(blockSize, 'a');
    const Buffer noise = random(blockSize, 1);
    Buffer likeLeader(noise.begin() + blockSize / 2, noise.end());
    likeLeader.resize(blockSize, 'b');
    const struct {
        const char* name;
        Buffer plain;
        const Buffer* leader;
        bool last;
        std::uint8_t flags;
    } cases[] = {
        {"compressed", text, nullptr, false, blockCompressed},
        {"does not shrink", noise, nullptr, false, 0},
        {"like its leader", likeLeader, &noise, false, blockCompressed | blockWithDictionary},
        {"the last", Buffer(36, 'a'), nullptr, true, blockLast},
    };
    for (const auto& c : cases) {
        const Buffer block = encode(4, c.last, c.plain, c.leader);
        ASSERT_GT(block.size(), blockHeaderSize) << c.name;
        EXPECT_EQ(block[7], c.flags) << c.name;
        Buffer plain;
        EXPECT_EQ(decode(block, noise, plain), BlockFault::none) << c.name;
        EXPECT_TRUE(plain == c.plain) << c.name;
    }
}

TEST(BlockCodec, ForgetsABlockThatDidNotShrink) {
    BlockEncoder encoder(someKeys());
    Buffer out(BlockEncoder::capacity);
    Buffer first;
    for (unsigned seed = 0; seed < 3; ++seed) {
        const Buffer leader = random(blockSize, seed);
        const auto dictionary = dictionaryOf(seed, leader);
        out.resize(BlockEncoder::capacity);
        Buffer noise = random(blockSize, 9);
        for (std::size_t i = 0; i < 4096; ++i) noise[i] &= 0x7f;  // or it would not be tried
        EXPECT_GT(encoder.encode(1, false, noise, &dictionary, out.data()), blockSize);
        out.resize(encoder.encode(2, false, Buffer(blockSize, 'a'), nullptr, out.data()));
        if (first.empty()) first = out;
        EXPECT_TRUE(out == first);
    }
}

TEST(BlockCodec, RefusesEveryFlippedBit) {
    const Buffer block = encode(1, true, Buffer(36, 'x'));
    for (std::size_t bit = 0; bit < block.size() * 8; ++bit) {
        Buffer damaged = block;
        damaged[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
        Buffer plain;
        EXPECT_EQ(decode(damaged, {}, plain), BlockFault::seal) << bit;
    }
}

// Blocks that only someone who has the key can make, such as a faulty writer.
TEST(BlockCodec, RefusesWellSealedContentThatIsNoBlock) {
    const auto frame = [](std::size_t size) {
        Buffer bytes(size + 1000);
        bytes.resize(ZSTD_compress(bytes.data(), bytes.size(), Buffer(size, 0).data(), size, 1));
        return bytes;
    };
    auto two = frame(blockSize);
    two.insert(two.end(), two.begin(), two.end());
    auto cut = frame(blockSize);
    cut.pop_back();
    const struct {
        std::uint8_t flags;
        Buffer stored;
    } cases[] = {{blockCompressed, frame(blockSize - 1)},
                 {blockCompressed, frame(blockSize + 1)},
                 {blockCompressed, frame(100U << 20)},
                 {blockCompressed, two},
                 {blockCompressed, cut},
                 {blockCompressed, random(100, 2)},
                 {0, Buffer(blockSize - 1)},
                 {blockLast, Buffer(blockSize)}};
    for (const auto& c : cases) {
        Buffer sealed = c.stored;
        sealed.resize(sealed.size() + tagSize);
        const BlockHeader header{static_cast<std::uint32_t>(sealed.size()), c.flags, 0};
        HpkeCipher cipher(someKeys(), HpkeCipher::Direction::seal);
        const MutableBytes message = MutableBytes(sealed).first(c.stored.size());
        ASSERT_TRUE(cipher.seal(0, encodeBlockHeader(header), message,
                                std::span<std::uint8_t, tagSize>(sealed.data() + message.size(), tagSize)));
        Buffer plain;
        EXPECT_EQ(BlockDecoder(someKeys()).decode(header, sealed, {}, plain), BlockFault::content);
        EXPECT_LE(plain.size(), blockSize);
    }
}

TEST(BlockCodec, RefusesBlockHeadersThatAreNot) {
    const auto good = encodeBlockHeader({100, blockCompressed, 7});
    ASSERT_TRUE(decodeBlockHeader(good));
    EXPECT_EQ(decodeBlockHeader(good)->sequence, 7U);
    EXPECT_FALSE(decodeBlockHeader(Bytes(good).first(15)));
    EXPECT_FALSE(decodeBlockHeader(encodeBlockHeader({tagSize, 0, 0})));
    EXPECT_FALSE(decodeBlockHeader(encodeBlockHeader({blockSize + tagSize + 1, 0, 0})));
    for (const std::uint8_t flags : {blockWithDictionary, std::uint8_t{blockLast | blockCompressed}, std::uint8_t{8}})
        EXPECT_FALSE(decodeBlockHeader(encodeBlockHeader({100, flags, 0})));
}

TEST(BlockCodec, SaysWhatIsWrongWithAPlainHeader) {
    PlainHeader header;
    header.groupLength = 16;
    header.recipient.fill(8);
    header.encapsulated.fill(9);
    const auto good = encodePlainHeader(header);
    auto fault = HeaderFault::cut;
    const auto decoded = decodePlainHeader(good, fault);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(encodePlainHeader(*decoded), good);

    const auto faultWith = [&](std::size_t offset, std::uint8_t value, std::size_t length = plainHeaderSize) {
        auto bytes = good;
        bytes[offset] = value;
        HeaderFault found{};
        EXPECT_FALSE(decodePlainHeader(Bytes(bytes).first(length), found)) << offset;
        return found;
    };
    EXPECT_EQ(faultWith(1, 'x'), HeaderFault::notAnArchive);
    EXPECT_EQ(faultWith(0, good[0], 7), HeaderFault::notAnArchive);
    EXPECT_EQ(faultWith(0, good[0], plainHeaderSize - 1), HeaderFault::cut);
    for (const std::size_t offset : {8U, 10U, 12U, 16U, 24U})
        EXPECT_EQ(faultWith(offset, 0xfe), HeaderFault::unsupported) << offset;
    EXPECT_EQ(faultWith(28, 0), HeaderFault::unsupported);
}

}  // namespace
