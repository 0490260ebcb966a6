// Encodes one block of an archive (compress, seal) and decodes it (unseal, decompress), and its block header, which is
// not encrypted.
#pragma once

#include <zstd.h>

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "base/handle.h"
#include "qvx/crypto/message_cipher.h"
#include "qvx/format/format.h"

namespace tarnwick::qvx {

struct BlockHeader {
    std::uint32_t sealedLength = 0;  // tag included
    std::uint8_t flags = 0;
    std::uint64_t sequence = 0;
    std::uint64_t leader = 0;  // sequence number; 0 without blockWithDictionary

    [[nodiscard]] bool last() const { return flags & blockLast; }
    [[nodiscard]] bool leads() const { return flags & blockLeader; }
    [[nodiscard]] bool needsLeader() const { return flags & blockWithDictionary; }
};

std::array<std::uint8_t, blockHeaderSize> encodeBlockHeader(const BlockHeader& header);

// None when the bytes are not a block header: too few, a wrong magic, an impossible length or number, flags that
// contradict each other, or a leader that does not come before the block.
std::optional<BlockHeader> decodeBlockHeader(Bytes bytes);

// The plain bytes of a leader, which later blocks are compressed with.
struct Dictionary {
    std::uint64_t leader = 0;  // sequence number; an encoder compares it to see whether it has loaded this dictionary
    std::vector<std::uint8_t> bytes;
};

// Which place a block has in the archive.
struct BlockRole {
    bool last = false;
    bool leads = false;
    const Dictionary* leader = nullptr;  // null for none
};

// Compresses and seals. One thread at a time.
class BlockEncoder {
public:
    // Bytes of the largest block, header included.
    static constexpr std::size_t capacity = blockHeaderSize + blockSize + tagSize;

    // Throws std::bad_alloc.
    explicit BlockEncoder(const MessageKeys& keys);

    // Writes the header and the sealed bytes of one block to `out` (`capacity` bytes) and returns their length; 0 on a
    // failure of the libraries. A leader and the last block must have no leader. The last block is not compressed, nor
    // is one that does not become smaller.
    std::size_t encode(std::uint64_t sequence, const BlockRole& role, Bytes plain, std::uint8_t* out);

private:
    std::size_t compress(Bytes plain, const Dictionary* dictionary, std::uint8_t* out);
    std::size_t compressAfterDictionary(const Dictionary& dictionary, Bytes plain, std::uint8_t* out);
    bool loadDictionary(const Dictionary& dictionary);

    // The context is in memory that we allocate: ZSTD_copyCCtx crashes if zstd cannot allocate memory for the copy.
    class Compressor {
    public:
        explicit Compressor(std::size_t size);
        [[nodiscard]] ZSTD_CCtx* context() const { return context_; }

    private:
        std::vector<std::uint64_t> space_;
        ZSTD_CCtx* context_;
    };

    MessageCipher cipher_;
    std::vector<std::uint8_t> region_;  // the dictionary, and the block right after it
    std::optional<std::uint64_t> loaded_;
    Compressor prepared_;  // has loaded the dictionary `loaded_`, and is copied for each block
    Compressor compressor_;
};

enum class BlockFault {
    none,
    seal,     // changed, cut, of another archive, or with another sequence number
    content,  // unseals, but is not one frame or has a wrong size: a faulty writer
    memory,
};

// Unseals and decompresses. One thread at a time.
class BlockDecoder {
public:
    explicit BlockDecoder(const MessageKeys& keys);

    // Copies a leader and returns the copy, valid until the next call. With it, decode() is faster. Needs memory for
    // two blocks. Throws std::bad_alloc.
    Bytes copyLeader(Bytes plain);

    // Unseals `sealed` (header.sealedLength bytes) in place and puts the plain block into `plain`. `leader` is the
    // plain block of the leader, needed only when the flags say so.
    BlockFault decode(const BlockHeader& header, MutableBytes sealed, Bytes leader, std::vector<std::uint8_t>& plain);

private:
    bool decompress(const BlockHeader& header, Bytes frame, Bytes leader, std::vector<std::uint8_t>& plain);
    bool decompress(Bytes frame, Bytes leader, std::uint8_t* plain);

    MessageCipher cipher_;
    std::unique_ptr<ZSTD_DCtx, FreeWith<ZSTD_freeDCtx>> decompressor_;

    // The copy of the leader, and right after it the block that is decompressed. Otherwise zstd would copy every match
    // with the leader by a call of memmove(), which takes a tenth of the time.
    std::unique_ptr<std::uint8_t[]> window_;
};

}  // namespace tarnwick::qvx
