// One block of an archive: compressed and sealed, or opened and decompressed; and the headers that stand in the plain.
#pragma once

#include <zstd.h>

#include <memory>
#include <optional>
#include <vector>

#include "base/handle.h"
#include "qvx/crypto/hpke.h"
#include "qvx/format/format.h"

namespace tarnwick::qvx {

struct PlainHeader {
    std::uint32_t groupLength = 1;
    Digest recipient{};  // fingerprint of the recipient's key
    Point encapsulated{};
};

enum class HeaderFault {
    notAnArchive,  // another magic, or too short for it
    cut,           // shorter than a header
    unsupported,   // a version, profile, compression, block size, group length or flag that is not ours
};

std::array<std::uint8_t, plainHeaderSize> encodePlainHeader(const PlainHeader& header);

// Reads the header in front of `file`; without one, says why in `fault`.
std::optional<PlainHeader> decodePlainHeader(Bytes file, HeaderFault& fault);

struct BlockHeader {
    std::uint32_t sealedLength = 0;  // tag included
    std::uint8_t flags = 0;
    std::uint64_t sequence = 0;
};

std::array<std::uint8_t, blockHeaderSize> encodeBlockHeader(const BlockHeader& header);

// None when these are not 16 bytes of a block header: magic, length, or flags that do not go together.
std::optional<BlockHeader> decodeBlockHeader(Bytes bytes);

// What a block of a group may refer to: the plain bytes of the block that leads the group.
struct GroupDictionary {
    std::uint64_t leader = 0;  // its sequence number, by which an encoder knows the dictionary again
    std::vector<std::uint8_t> bytes;
};

// Compresses and seals. One thread at a time.
class BlockEncoder {
public:
    // The largest block with its header.
    static constexpr std::size_t capacity = blockHeaderSize + blockSize + tagSize;

    // Throws std::bad_alloc.
    explicit BlockEncoder(const HpkeKeys& keys);

    // Writes header and sealed bytes of one block to `out` (`capacity` bytes) and gives their length; 0 on a failure of
    // the libraries. `dictionary` is null for a leader and for a block that is to stand alone; the last block is stored
    // raw.
    std::size_t encode(std::uint64_t sequence, bool last, Bytes plain, const GroupDictionary* dictionary,
                       std::uint8_t* out);

private:
    std::size_t compress(Bytes plain, const GroupDictionary* dictionary, std::uint8_t* out);
    std::size_t compressBehind(const GroupDictionary& dictionary, Bytes plain, std::uint8_t* out);
    bool learn(const GroupDictionary& dictionary);

    // In space of ours: zstd crashes when it copies one and cannot have its own.
    class Compressor {
    public:
        explicit Compressor(std::size_t size);
        [[nodiscard]] ZSTD_CCtx* context() const { return context_; }

    private:
        std::vector<std::uint64_t> space_;
        ZSTD_CCtx* context_;
    };

    HpkeCipher cipher_;
    std::vector<std::uint8_t> region_;  // the dictionary and, right behind it, the block
    std::optional<std::uint64_t> learned_;
    Compressor prepared_;  // has learned the dictionary, and is copied for each block
    Compressor compressor_;
};

enum class BlockFault {
    none,
    seal,     // changed, cut, of another archive, or in another place than its sequence number says
    content,  // well sealed, but no frame, or not of the size it must have: a faulty writer
    memory,
};

// Opens and decompresses. One thread at a time.
class BlockDecoder {
public:
    explicit BlockDecoder(const HpkeKeys& keys);

    // Opens `sealed` (header.sealedLength bytes) in place and gives the plain block in `plain`. `leader` is the plain
    // block that leads the group, needed only when the flags say so.
    BlockFault decode(const BlockHeader& header, MutableBytes sealed, Bytes leader, std::vector<std::uint8_t>& plain);

private:
    bool decompress(const BlockHeader& header, Bytes frame, Bytes leader, std::vector<std::uint8_t>& plain);

    HpkeCipher cipher_;
    std::unique_ptr<ZSTD_DCtx, FreeWith<ZSTD_freeDCtx>> decompressor_;
};

}  // namespace tarnwick::qvx
