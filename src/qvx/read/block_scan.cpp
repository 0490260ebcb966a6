#include "qvx/read/block_scan.h"

#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

namespace {

// A false header costs an attempt to unseal as many bytes as it claims. When the attempts add up to this many times the
// size of the file, somebody has planted such headers to keep the reader busy, and the scan ends.
constexpr std::uint64_t maxRejectedFactor = 16;

class Scanner {
public:
    Scanner(const ArchiveFile& file, const HpkeKeys& keys) : file_(file), cipher_(keys, HpkeCipher::Direction::open) {}

    std::vector<BlockPlace> run() {
        std::uint64_t position = plainHeaderSize;
        while (position < file_.size() && rejectedBytes_ / maxRejectedFactor <= file_.size()) {
            // The inside of an unsealed block is not searched: a magic in it is chance.
            if (const auto length = tryBlock(position)) {
                position += *length;
            } else {
                position = findMagic(position + 1);
            }
        }
        return std::move(places_);
    }

private:
    // The length of the block at `position`, header included; none when no block can be unsealed there.
    std::optional<std::uint64_t> tryBlock(std::uint64_t position) {
        const auto header = readBlockHeader(file_, position);
        // A file of this size cannot contain more blocks, so a higher number is false and needs no attempt.
        if (!header || header->sequence > file_.size() / blockHeaderSize) return std::nullopt;
        sealed_.resize(header->sealedLength);
        if (!file_.read(position + blockHeaderSize, sealed_)) return std::nullopt;
        const MutableBytes stored = MutableBytes(sealed_).first(sealed_.size() - tagSize);
        const std::span<const std::uint8_t, tagSize> tag(sealed_.data() + stored.size(), tagSize);
        // To unseal is enough: it proves that the writer of the archive sealed these bytes under this number. To
        // decompress may need a leader that is not found yet.
        if (!cipher_.open(header->sequence, encodeBlockHeader(*header), stored, tag)) {
            rejectedBytes_ += sealed_.size();
            return std::nullopt;
        }
        places_.push_back({header->sequence, position});
        return blockHeaderSize + header->sealedLength;
    }

    // The position of the next block magic, or the end of the file.
    std::uint64_t findMagic(std::uint64_t position) {
        while (position < file_.size()) {
            if (position < windowAt_ || position + blockMagic.size() > windowAt_ + window_.size()) {
                window_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(blockSize, file_.size() - position)));
                windowAt_ = position;
                // The disk may be damaged here. The search continues after this window, which is emptied: its bytes are
                // not those of the file.
                if (!file_.read(position, window_)) return position + std::exchange(window_, {}).size();
            }
            const auto begin = window_.begin() + static_cast<std::ptrdiff_t>(position - windowAt_);
            const auto found = std::search(begin, window_.end(), blockMagic.begin(), blockMagic.end());
            position += static_cast<std::uint64_t>(found - begin);
            if (found != window_.end()) return position;
            if (position < file_.size()) position -= blockMagic.size() - 1;  // a magic may cross the edge of the window
        }
        return position;
    }

    const ArchiveFile& file_;
    HpkeCipher cipher_;
    std::vector<std::uint8_t> sealed_;
    std::vector<std::uint8_t> window_;  // a part of the file; the search continues in it
    std::uint64_t windowAt_ = 0;
    std::vector<BlockPlace> places_;
    std::uint64_t rejectedBytes_ = 0;
};

}  // namespace

BlockMap scanForBlocks(const ArchiveFile& file, const HpkeKeys& keys) {
    auto found = Scanner(file, keys).run();
    // Stable, so that of several copies of a block the first one in the file is used.
    std::stable_sort(found.begin(), found.end(),
                     [](const BlockPlace& a, const BlockPlace& b) { return a.sequence < b.sequence; });
    BlockMap map;
    for (std::size_t i = 0; i < found.size(); ++i)
        if (i == 0 || found[i].sequence != found[i - 1].sequence) map.add(found[i]);
    return map;
}

}  // namespace tarnwick::qvx
