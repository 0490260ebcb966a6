// Reads the index of an archive from the end of the file, without reading the blocks of the entries.
#pragma once

#include <functional>

#include "qvx/format/entry_codec.h"
#include "qvx/format/index_codec.h"
#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

class ArchiveIndex {
public:
    // Reads trailer and root. Both arguments must outlive the index. Null when they are damaged; `fault` says why.
    static std::unique_ptr<ArchiveIndex> load(const ArchiveFile& file, const HpkeKeys& keys, ReadFault& fault);

    [[nodiscard]] std::uint64_t entries() const { return root_.entries; }
    [[nodiscard]] std::size_t parts() const { return root_.parts.size(); }
    [[nodiscard]] std::uint64_t partFirst(std::size_t part) const { return root_.parts[part].first; }
    [[nodiscard]] std::uint64_t partBlock(std::size_t part) const { return root_.parts[part].block; }

    // Calls `visit` for the entries of one part, in order, until it returns false. Only one entry is in memory at a
    // time. False at damage; `fault` says what.
    using Visitor = std::function<bool(std::uint64_t number, const IndexEntry& entry)>;
    bool visitPart(std::size_t part, const Visitor& visit, ReadFault& fault);

    // The index of the part that covers the entry; parts() when there is none.
    [[nodiscard]] std::size_t partOf(std::uint64_t number) const;

    [[nodiscard]] const BlockMap& map() const { return map_; }
    RandomBlocks& blocks() { return blocks_; }

private:
    ArchiveIndex(const ArchiveFile& file, const HpkeKeys& keys) : blocks_(file, keys, map_) {}

    bool readRoot(const ArchiveFile& file, const HpkeKeys& keys, const Trailer& trailer, ReadFault& fault);
    bool fillMap(const Trailer& trailer);
    bool partsAreInOrder() const;
    bool readPart(const IndexPartPlace& place, std::vector<std::uint8_t>& payload, ReadFault& fault);

    ArchiveRoot root_;
    BlockMap map_;
    RandomBlocks blocks_;
};

}  // namespace tarnwick::qvx
