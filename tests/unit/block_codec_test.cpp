// Blocks that no honest writer makes; the honest ones go through the reader's and the library's tests.
#include "platform/archive/block_codec.h"

#include <gtest/gtest.h>

using namespace tarnwick::qvx;

namespace {

using Buffer = std::vector<std::uint8_t>;

Buffer frame(std::size_t size) {
    Buffer bytes(size + 1000);
    bytes.resize(ZSTD_compress(bytes.data(), bytes.size(), Buffer(size, 0).data(), size, 1));
    return bytes;
}

TEST(BlockCodec, RefusesWellSealedContentThatIsNoBlock) {
    auto two = frame(blockSize), cut = two;
    two.insert(two.end(), cut.begin(), cut.end());
    cut.pop_back();
    const std::pair<std::uint8_t, Buffer> cases[] = {{blockCompressed, frame(blockSize - 1)},
                                                     {blockCompressed, frame(blockSize + 1)},
                                                     {blockCompressed, frame(100U << 20)},
                                                     {blockCompressed, two},
                                                     {blockCompressed, cut},
                                                     {blockCompressed, Buffer(100, 'x')},
                                                     {0, Buffer(blockSize - 1)},
                                                     {blockLast, Buffer(blockSize)}};
    for (const auto& [flags, stored] : cases) {
        auto sealed = stored;
        sealed.resize(stored.size() + tagSize);
        const BlockHeader header{static_cast<std::uint32_t>(sealed.size()), flags, 0};
        const MutableBytes message = MutableBytes(sealed).first(stored.size());
        const std::span<std::uint8_t, tagSize> tag(sealed.data() + message.size(), tagSize);
        HpkeCipher cipher({}, HpkeCipher::Direction::seal);
        ASSERT_TRUE(cipher.seal(0, encodeBlockHeader(header), message, tag));
        Buffer plain;
        EXPECT_EQ(BlockDecoder({}).decode(header, sealed, {}, plain), BlockFault::content) << stored.size();
        EXPECT_LE(plain.size(), blockSize);
    }
}

// What only the beginning of the leader holds is referred to as well.
TEST(BlockCodec, LearnsFromTheWholeLeader) {
    GroupDictionary leader{0, Buffer(blockSize)};
    std::uint32_t state = 1;
    for (auto& byte : leader.bytes) byte = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
    Buffer plain(leader.bytes.begin(), leader.bytes.begin() + blockSize / 2);
    plain.resize(blockSize, 'b');
    Buffer block(BlockEncoder::capacity);
    block.resize(BlockEncoder({}).encode(1, false, plain, &leader, block.data()));
    EXPECT_LT(block.size(), 65536U);
    Buffer given;
    const MutableBytes sealed = MutableBytes(block).subspan(blockHeaderSize);
    EXPECT_EQ(BlockDecoder({}).decode(*decodeBlockHeader(block), sealed, leader.bytes, given), BlockFault::none);
    EXPECT_TRUE(given == plain);
}

TEST(PlainHeader, IsToldFromNoArchiveACutOneAndALaterOne) {
    const auto fault = [](std::size_t offset, std::uint8_t value, std::size_t length = plainHeaderSize) {
        auto bytes = encodePlainHeader({16, {}, {}});
        bytes[offset] = value;
        HeaderFault found{};
        EXPECT_FALSE(decodePlainHeader(Bytes(bytes).first(length), found)) << offset;
        return found;
    };
    EXPECT_EQ(fault(1, 'x'), HeaderFault::notAnArchive);
    EXPECT_EQ(fault(0, fileMagic[0], 7), HeaderFault::notAnArchive);
    EXPECT_EQ(fault(0, fileMagic[0], plainHeaderSize - 1), HeaderFault::cut);
    for (const std::size_t offset : {8U, 10U, 12U, 16U, 24U})
        EXPECT_EQ(fault(offset, 0xfe), HeaderFault::unsupported) << offset;
}

}  // namespace
