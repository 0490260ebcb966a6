// Reads the index of an archive from the end of the file, without reading the blocks of the entries.
#pragma once

#include <functional>

#include "qvx/format/index_codec.h"
#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

class ArchiveIndex {
public:
    // Reads trailer and root. Both arguments must outlive the index.
    static Result<std::unique_ptr<ArchiveIndex>, ReadFault> load(const ArchiveFile& file, const MessageKeys& keys);

    [[nodiscard]] std::uint64_t entries() const { return entries_; }
    [[nodiscard]] std::size_t parts() const { return parts_.size(); }

    // The numbers of the entries that a part covers: from partFirst() to one before partEnd().
    [[nodiscard]] std::uint64_t partFirst(std::size_t part) const { return parts_[part].first; }
    [[nodiscard]] std::uint64_t partEnd(std::size_t part) const {
        return part + 1 < parts_.size() ? parts_[part + 1].first : entries_;
    }

    // Calls `visit` for the entries of one part, or of all parts, by number, until it returns false. Only one entry is
    // in memory at a time. Fails at damage.
    using Visitor = std::function<bool(std::uint64_t number, const IndexEntry& entry)>;
    Result<void, ReadFault> visitPart(std::size_t part, const Visitor& visit);
    Result<void, ReadFault> visit(const Visitor& visit);

    // Where the blocks before the root are.
    [[nodiscard]] const BlockMap& map() const { return map_; }

private:
    ArchiveIndex(const ArchiveFile& file, const MessageKeys& keys) : file_(file), blocks_(file, keys, map_) {}

    Result<void, ReadFault> readRoot(const ArchiveFile& file, const MessageKeys& keys, const Trailer& trailer);
    bool useRoot(Bytes payload, const ArchiveFile& file, const Trailer& trailer);
    Result<std::vector<std::uint8_t>, ReadFault> readPart(const IndexPartPlace& place);
    void hint(std::size_t part);
    [[nodiscard]] std::uint64_t partEndBlock(std::size_t part) const;

    const ArchiveFile& file_;
    std::uint64_t entries_ = 0;
    std::vector<IndexPartPlace> parts_;
    std::size_t hinted_ = 0;  // the parts before this one will be read
    BlockMap map_;
    RandomBlocks blocks_;
};

}  // namespace tarnwick::qvx
