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
                                                     {blockCompressed, two},
                                                     {blockCompressed, cut},
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

}  // namespace
