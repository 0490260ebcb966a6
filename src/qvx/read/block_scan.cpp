#include "qvx/read/block_scan.h"

#include <utility>

#include "qvx/read/magic_search.h"

namespace tarnwick::qvx {

namespace {

// A false header costs an attempt to unseal as many bytes as it claims. When the attempts add up to this many times the
// size of the file, somebody has planted such headers to keep the reader busy, and the scan ends.
constexpr std::uint64_t maxRejectedFactor = 16;

class Scanner {
public:
    Scanner(const ArchiveFile& file, const MessageKeys& keys)
        : file_(file), cipher_(keys, MessageCipher::Direction::open), search_(file, blockMagic) {}

    BlockScan run() {
        // From the beginning of the file: the header may be missing.
        std::uint64_t position = 0;
        while (position < file_.size() && mayContinue()) {
            // The inside of an unsealed block is not searched: a magic in it is chance.
            if (const auto length = tryBlock(position)) {
                position += *length;
            } else {
                position = search_.find(position + 1);
            }
        }
        return {std::move(map_), mayContinue()};
    }

private:
    [[nodiscard]] bool mayContinue() const { return rejectedBytes_ / maxRejectedFactor <= file_.size(); }

    // The length of the block at `position`, header included; none when no block can be unsealed there.
    std::optional<std::uint64_t> tryBlock(std::uint64_t position) {
        const auto header = readBlockHeader(file_, position);
        if (!header) return std::nullopt;
        sealed_.resize(header->sealedLength);
        file_.willReadFrom(position);
        if (!file_.read(position + blockHeaderSize, sealed_)) return std::nullopt;
        const MutableBytes stored = MutableBytes(sealed_).first(sealed_.size() - tagSize);
        const std::span<const std::uint8_t, tagSize> tag(sealed_.data() + stored.size(), tagSize);
        // To unseal is enough: it proves that the writer of the archive sealed these bytes under this number. To
        // decompress may need a leader that is not found yet.
        if (!cipher_.open(header->sequence, encodeBlockHeader(*header), stored, tag)) {
            rejectedBytes_ += sealed_.size();
            return std::nullopt;
        }
        map_.add({header->sequence, position});
        return blockHeaderSize + header->sealedLength;
    }

    const ArchiveFile& file_;
    MessageCipher cipher_;
    std::vector<std::uint8_t> sealed_;
    MagicSearch search_;
    BlockMap map_;
    std::uint64_t rejectedBytes_ = 0;
};

}  // namespace

BlockScan scanForBlocks(const ArchiveFile& file, const MessageKeys& keys) { return Scanner(file, keys).run(); }

}  // namespace tarnwick::qvx
