#include "platform/archive/block_codec.h"

#include <algorithm>
#include <new>

#include "platform/archive/wire.h"

// Dictionaries by reference and of raw content are behind this switch in the shared library, too.
#define ZSTD_STATIC_LINKING_ONLY
#include <zstd.h>

namespace tarnwick::qvx {

namespace {

constexpr int compressionLevel = 3;

}  // namespace

std::array<std::uint8_t, plainHeaderSize> encodePlainHeader(const PlainHeader& header) {
    std::array<std::uint8_t, plainHeaderSize> bytes{};
    std::copy(fileMagic.begin(), fileMagic.end(), bytes.begin());
    putLittleEndian<2>(bytes.data() + 8, formatVersion);
    putLittleEndian<2>(bytes.data() + 10, profileHpke);
    putLittleEndian<4>(bytes.data() + 12, compressionZstd);
    putLittleEndian<8>(bytes.data() + 16, streamFlags);
    putLittleEndian<4>(bytes.data() + 24, blockSize);
    putLittleEndian<4>(bytes.data() + 28, header.groupLength);
    std::copy(header.recipient.begin(), header.recipient.end(), bytes.begin() + 32);
    std::copy(header.encapsulated.begin(), header.encapsulated.end(), bytes.begin() + boundHeaderSize);
    return bytes;
}

std::optional<PlainHeader> decodePlainHeader(Bytes file, HeaderFault& fault) {
    fault = HeaderFault::notAnArchive;
    if (file.size() < fileMagic.size() || !std::equal(fileMagic.begin(), fileMagic.end(), file.begin()))
        return std::nullopt;
    fault = HeaderFault::cut;
    if (file.size() < plainHeaderSize) return std::nullopt;
    PlainHeader header;
    header.groupLength = static_cast<std::uint32_t>(getLittleEndian<4>(file.data() + 28));
    std::copy_n(file.begin() + 32, header.recipient.size(), header.recipient.begin());
    std::copy_n(file.begin() + boundHeaderSize, header.encapsulated.size(), header.encapsulated.begin());
    // What a header may say is what we would have written ourselves.
    const auto expected = encodePlainHeader(header);
    fault = HeaderFault::unsupported;
    if (header.groupLength == 0 || !std::equal(expected.begin(), expected.end(), file.begin())) return std::nullopt;
    return header;
}

std::array<std::uint8_t, blockHeaderSize> encodeBlockHeader(const BlockHeader& header) {
    std::array<std::uint8_t, blockHeaderSize> bytes{};
    std::copy(blockMagic.begin(), blockMagic.end(), bytes.begin());
    putLittleEndian<3>(bytes.data() + 4, header.sealedLength);
    bytes[7] = header.flags;
    putLittleEndian<8>(bytes.data() + 8, header.sequence);
    return bytes;
}

std::optional<BlockHeader> decodeBlockHeader(Bytes bytes) {
    if (bytes.size() < blockHeaderSize || !std::equal(blockMagic.begin(), blockMagic.end(), bytes.begin()))
        return std::nullopt;
    BlockHeader header;
    header.sealedLength = static_cast<std::uint32_t>(getLittleEndian<3>(bytes.data() + 4));
    header.flags = bytes[7];
    header.sequence = getLittleEndian<8>(bytes.data() + 8);
    const bool last = header.flags & blockLast;
    const bool compressed = header.flags & blockCompressed;
    const bool withDictionary = header.flags & blockWithDictionary;
    const bool known = !(header.flags & ~(blockLast | blockCompressed | blockWithDictionary));
    if (!known || (withDictionary && !compressed) || (last && compressed) || header.sealedLength <= tagSize ||
        header.sealedLength > blockSize + tagSize)
        return std::nullopt;
    return header;
}

GroupDictionary makeGroupDictionary(Bytes leader) {
    const auto parameters = ZSTD_getCParams(compressionLevel, blockSize, leader.size());
    GroupDictionary dictionary(ZSTD_createCDict_advanced(leader.data(), leader.size(), ZSTD_dlm_byRef,
                                                         ZSTD_dct_rawContent, parameters, ZSTD_defaultCMem));
    if (!dictionary) throw std::bad_alloc();
    return dictionary;
}

BlockEncoder::BlockEncoder(const HpkeKeys& keys)
    : cipher_(keys, HpkeCipher::Direction::seal), compressor_(ZSTD_createCCtx()) {
    if (!compressor_) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(compressor_.get(), ZSTD_c_compressionLevel, compressionLevel);
}

std::size_t BlockEncoder::encode(std::uint64_t sequence, bool last, Bytes plain, const ZSTD_CDict* dictionary,
                                 std::uint8_t* out) {
    std::uint8_t* stored = out + blockHeaderSize;
    BlockHeader header{0, last ? blockLast : std::uint8_t{0}, sequence};
    std::size_t length = 0;
    if (!last) {
        // After a frame that did not fit, the compressor would go on with that one, and with its dictionary.
        ZSTD_CCtx_reset(compressor_.get(), ZSTD_reset_session_only);
        ZSTD_CCtx_refCDict(compressor_.get(), dictionary);
        // A frame that would not be smaller than the block does not fit, and is then not wanted.
        length = ZSTD_compress2(compressor_.get(), stored, plain.size() - 1, plain.data(), plain.size());
        if (ZSTD_isError(length)) length = 0;
    }
    if (length > 0) {
        header.flags = dictionary ? blockCompressed | blockWithDictionary : blockCompressed;
    } else {
        std::copy(plain.begin(), plain.end(), stored);
        length = plain.size();
    }
    header.sealedLength = static_cast<std::uint32_t>(length + tagSize);
    const auto bytes = encodeBlockHeader(header);
    std::copy(bytes.begin(), bytes.end(), out);
    const std::span<std::uint8_t, tagSize> tag(stored + length, tagSize);
    return cipher_.seal(sequence, bytes, {stored, length}, tag) ? blockHeaderSize + length + tagSize : 0;
}

BlockDecoder::BlockDecoder(const HpkeKeys& keys)
    : cipher_(keys, HpkeCipher::Direction::open), decompressor_(ZSTD_createDCtx()) {
    if (!decompressor_) throw std::bad_alloc();
}

BlockFault BlockDecoder::decode(const BlockHeader& header, MutableBytes sealed, Bytes leader,
                                std::vector<std::uint8_t>& plain) {
    const MutableBytes stored = sealed.first(header.sealedLength - tagSize);
    const std::span<const std::uint8_t, tagSize> tag(sealed.data() + stored.size(), tagSize);
    if (!cipher_.open(header.sequence, encodeBlockHeader(header), stored, tag)) return BlockFault::seal;
    try {
        if (!(header.flags & blockCompressed)) {
            plain.assign(stored.begin(), stored.end());
        } else if (!decompress(header, stored, leader, plain)) {
            return BlockFault::content;
        }
    } catch (const std::bad_alloc&) {
        return BlockFault::memory;
    }
    const bool last = header.flags & blockLast;
    return last == (plain.size() < blockSize) ? BlockFault::none : BlockFault::content;
}

bool BlockDecoder::decompress(const BlockHeader& header, Bytes frame, Bytes leader, std::vector<std::uint8_t>& plain) {
    // The frame must be the only one and name its size, so that nothing is decompressed past a block.
    if (ZSTD_getFrameContentSize(frame.data(), frame.size()) != blockSize ||
        ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size())
        return false;
    plain.resize(blockSize);
    const Bytes dictionary = header.flags & blockWithDictionary ? leader : Bytes{};
    ZSTD_DCtx_reset(decompressor_.get(), ZSTD_reset_session_and_parameters);
    if (ZSTD_isError(ZSTD_DCtx_refPrefix(decompressor_.get(), dictionary.data(), dictionary.size()))) return false;
    return ZSTD_decompressDCtx(decompressor_.get(), plain.data(), plain.size(), frame.data(), frame.size()) ==
           blockSize;
}

}  // namespace tarnwick::qvx
