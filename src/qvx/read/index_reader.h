// Reads the index of an archive from the end of the file, without reading the blocks of the entries.
#pragma once

#include <functional>

#include "qvx/format/entry_codec.h"
#include "qvx/format/index_codec.h"
#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

class ArchiveIndex {
public:
    // Reads trailer and root. Both arguments must outlive the index.
    static Result<std::unique_ptr<ArchiveIndex>, ReadFault> load(const ArchiveFile& file, const MessageKeys& keys);

    [[nodiscard]] std::uint64_t entries() const { return root_.entries; }
    [[nodiscard]] std::size_t parts() const { return root_.parts.size(); }
    [[nodiscard]] std::uint64_t partFirst(std::size_t part) const { return root_.parts[part].first; }
    [[nodiscard]] std::uint64_t partBlock(std::size_t part) const { return root_.parts[part].block; }

    // Calls `visit` for the entries of one part, in order, until it returns false. Only one entry is in memory at a
    // time. Fails at damage.
    using Visitor = std::function<bool(std::uint64_t number, const IndexEntry& entry)>;
    Result<void, ReadFault> visitPart(std::size_t part, const Visitor& visit);

    // The index of the part that covers the entry; parts() when there is none.
    [[nodiscard]] std::size_t partOf(std::uint64_t number) const;

    [[nodiscard]] const BlockMap& map() const { return map_; }
    RandomBlocks& blocks() { return blocks_; }

private:
    ArchiveIndex(const ArchiveFile& file, const MessageKeys& keys) : blocks_(file, keys, map_) {}

    Result<void, ReadFault> readRoot(const ArchiveFile& file, const MessageKeys& keys, const Trailer& trailer);
    bool fillMap(const ArchiveFile& file, const Trailer& trailer);
    bool partsAreInOrder() const;
    Result<std::vector<std::uint8_t>, ReadFault> readPart(const IndexPartPlace& place);

    ArchiveRoot root_;
    BlockMap map_;
    RandomBlocks blocks_;
};

}  // namespace tarnwick::qvx
