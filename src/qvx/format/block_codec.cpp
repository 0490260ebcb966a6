// `ZSTD_copyCCtx` and `ZSTD_initStaticCCtx` need this macro; the shared library exports them.
#define ZSTD_STATIC_LINKING_ONLY
#define ZSTD_DISABLE_DEPRECATE_WARNINGS
#include "qvx/format/block_codec.h"

#include <algorithm>
#include <new>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr int compressionLevel = 3;

// How every frame begins: a single segment of blockSize bytes, without a checksum and without a dictionary identifier.
constexpr std::array<std::uint8_t, 9> frameHead{0x28, 0xb5, 0x2f, 0xfd, 0xa0, 0x00, 0x00, 0x10, 0x00};

bool hasFrameHead(Bytes frame) {
    return frame.size() >= frameHead.size() && std::equal(frameHead.begin(), frameHead.end(), frame.begin());
}

// Whether the block is like noise, which cannot be compressed: the byte values are distributed almost evenly in each of
// a few samples. One sample that differs is enough to compress the block.
bool looksLikeNoise(Bytes plain) {
    constexpr std::size_t sampleSize = 4096;
    constexpr std::size_t samples = 16;
    constexpr std::uint64_t evenSquares = sampleSize * sampleSize / 256;
    if (plain.size() < samples * sampleSize) return false;
    for (std::size_t i = 0; i < samples; ++i) {
        std::array<std::uint32_t, 256> counts{};
        for (const auto byte : plain.subspan(plain.size() / samples * i, sampleSize)) ++counts[byte];
        std::uint64_t squares = 0;
        for (const std::uint64_t count : counts) squares += count * count;
        // For noise the sum is about 255 * 16 above that of an even spread; for text, a hundred times as much.
        if (squares > evenSquares + 3 * 255 * 16) return false;
    }
    return true;
}

bool flagsAgree(std::uint8_t flags) {
    constexpr std::uint8_t known = blockLast | blockCompressed | blockWithDictionary | blockLeader;
    if (flags & ~known || (flags & blockLast && flags != blockLast)) return false;
    return !(flags & blockWithDictionary) || (flags & blockCompressed && !(flags & blockLeader));
}

bool lengthAgrees(const BlockHeader& header) {
    if (header.flags & blockLast) return header.sealedLength == lastBlockSize - blockHeaderSize;
    if (header.flags & blockCompressed)
        return header.sealedLength > tagSize && header.sealedLength < blockSize + tagSize;
    return header.sealedLength == blockSize + tagSize;
}

// For a block with its dictionary right before it in memory. Both are whole blocks.
ZSTD_parameters dictionaryParameters() {
    ZSTD_parameters parameters = ZSTD_getParams(compressionLevel, blockSize, blockSize);
    // Faster than 5 and 16, the values of level 3. With a dictionary, the result is hardly larger.
    parameters.cParams.minMatch = 6;
    parameters.cParams.chainLog = 15;
    return parameters;
}

}  // namespace

std::array<std::uint8_t, blockHeaderSize> encodeBlockHeader(const BlockHeader& header) {
    std::array<std::uint8_t, blockHeaderSize> bytes{};
    std::copy(blockMagic.begin(), blockMagic.end(), bytes.begin());
    putLittleEndian<3>(bytes.data() + 4, header.sealedLength);
    bytes[7] = header.flags;
    putLittleEndian<8>(bytes.data() + 8, header.sequence);
    putLittleEndian<8>(bytes.data() + 16, header.leader);
    return bytes;
}

std::optional<BlockHeader> decodeBlockHeader(Bytes bytes) {
    if (bytes.size() < blockHeaderSize || !std::equal(blockMagic.begin(), blockMagic.end(), bytes.begin()))
        return std::nullopt;
    BlockHeader header;
    header.sealedLength = static_cast<std::uint32_t>(getLittleEndian<3>(bytes.data() + 4));
    header.flags = bytes[7];
    header.sequence = getLittleEndian<8>(bytes.data() + 8);
    header.leader = getLittleEndian<8>(bytes.data() + 16);
    // A leader that comes later could need this block in turn.
    const bool hasLeader = header.needsLeader() ? header.leader < header.sequence : header.leader == 0;
    if (!lengthAgrees(header) || !hasLeader || !flagsAgree(header.flags) || header.sequence >= maxBlocks)
        return std::nullopt;
    return header;
}

BlockEncoder::Compressor::Compressor(std::size_t size)
    : space_((size + sizeof(space_[0]) - 1) / sizeof(space_[0])),
      context_(ZSTD_initStaticCCtx(space_.data(), space_.size() * sizeof(space_[0]))) {
    if (!context_) throw std::bad_alloc();
}

BlockEncoder::BlockEncoder(const MessageKeys& keys)
    : cipher_(keys, MessageCipher::Direction::seal),
      region_(2 * blockSize),
      prepared_(ZSTD_estimateCCtxSize_usingCParams(dictionaryParameters().cParams)),
      compressor_(ZSTD_estimateCCtxSize(compressionLevel)) {}

std::size_t BlockEncoder::encode(std::uint64_t sequence, const BlockRole& role, Bytes plain, std::uint8_t* out) {
    std::uint8_t* stored = out + blockHeaderSize;
    BlockHeader header{0, 0, sequence};
    if (role.last) header.flags = blockLast;
    if (role.leads) header.flags = blockLeader;
    // The last block is never compressed: its length is fixed, so that a reader finds it from the end of the file.
    std::size_t length = role.last || looksLikeNoise(plain) ? 0 : compress(plain, role.leader, stored);
    if (length > 0) {
        header.flags |= blockCompressed;
        if (role.leader) header.flags |= blockWithDictionary;
        if (role.leader) header.leader = role.leader->leader;
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

// Returns 0 when the block does not shrink: `out` is one byte shorter than the block, and zstd fails when it is full.
std::size_t BlockEncoder::compress(Bytes plain, const Dictionary* dictionary, std::uint8_t* out) {
    const std::size_t length = dictionary ? compressAfterDictionary(*dictionary, plain, out)
                                          : ZSTD_compressCCtx(compressor_.context(), out, plain.size() - 1,
                                                              plain.data(), plain.size(), compressionLevel);
    return ZSTD_isError(length) || !hasFrameHead({out, length}) ? 0 : length;
}

// Copies the block to the place right after its dictionary, because zstd is a seventh faster on one contiguous region
// than with a dictionary elsewhere. That saves more time than the copies take.
std::size_t BlockEncoder::compressAfterDictionary(const Dictionary& dictionary, Bytes plain, std::uint8_t* out) {
    if (!loadDictionary(dictionary)) return 0;
    const std::size_t copied = ZSTD_copyCCtx(compressor_.context(), prepared_.context(), plain.size());
    if (ZSTD_isError(copied)) return 0;
    std::uint8_t* input = region_.data() + blockSize;
    std::copy(plain.begin(), plain.end(), input);
    return ZSTD_compressEnd(compressor_.context(), out, plain.size() - 1, input, plain.size());
}

// A ZSTD_CDict would give the same result but takes three times as long to make: it indexes every position of the
// dictionary, this function every third. zstd would parse bytes that begin with the magic number of its own dictionary
// format; a leader begins with a record header, which never equals that number. (Readers do not look for it.)
bool BlockEncoder::loadDictionary(const Dictionary& dictionary) {
    if (loaded_ == dictionary.leader) return true;
    loaded_.reset();
    const std::size_t size = dictionary.bytes.size();
    std::uint8_t* place = region_.data() + blockSize - size;
    std::copy(dictionary.bytes.begin(), dictionary.bytes.end(), place);
    const std::size_t begun =
        ZSTD_compressBegin_advanced(prepared_.context(), place, size, dictionaryParameters(), blockSize);
    if (!ZSTD_isError(begun)) loaded_ = dictionary.leader;
    return loaded_.has_value();
}

BlockDecoder::BlockDecoder(const MessageKeys& keys)
    : cipher_(keys, MessageCipher::Direction::open), decompressor_(ZSTD_createDCtx()) {
    if (!decompressor_) throw std::bad_alloc();
}

Bytes BlockDecoder::copyLeader(Bytes plain) {
    if (!window_) window_ = std::make_unique_for_overwrite<std::uint8_t[]>(2 * blockSize);
    std::ranges::copy(plain.first(blockSize), window_.get());
    return {window_.get(), blockSize};
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
    // Only the last block may be shorter than the others.
    return header.last() == (plain.size() < blockSize) ? BlockFault::none : BlockFault::content;
}

bool BlockDecoder::decompress(const BlockHeader& header, Bytes frame, Bytes leader, std::vector<std::uint8_t>& plain) {
    // The head states the size, so zstd never writes more than one block.
    if (!hasFrameHead(frame) || ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size()) return false;
    plain.resize(blockSize);
    if (!header.needsLeader()) return decompress(frame, {}, plain.data());
    if (!window_ || leader.data() != window_.get()) return decompress(frame, leader, plain.data());
    std::uint8_t* const end = window_.get() + blockSize;
    if (!decompress(frame, leader, end)) return false;
    std::copy_n(end, blockSize, plain.begin());
    return true;
}

bool BlockDecoder::decompress(Bytes frame, Bytes leader, std::uint8_t* plain) {
    ZSTD_DCtx_reset(decompressor_.get(), ZSTD_reset_session_and_parameters);
    // A prefix is always raw content, also if it begins with the magic number of a trained dictionary.
    if (ZSTD_isError(ZSTD_DCtx_refPrefix(decompressor_.get(), leader.data(), leader.size()))) return false;
    return ZSTD_decompressDCtx(decompressor_.get(), plain, blockSize, frame.data(), frame.size()) == blockSize;
}

}  // namespace tarnwick::qvx
