// Reads chosen entries through the index, without reading the rest of the archive.
#pragma once

#include <functional>
#include <string_view>

#include "qvx/read/entry_table.h"
#include "qvx/read/index_reader.h"

namespace tarnwick::qvx {

// Whether to read the entry.
using EntryChoice = std::function<bool(std::uint64_t number, std::string_view path)>;

struct ChosenEntry {
    EntryPlace place;
    std::uint64_t lastBlock = 0;  // its END record is in this block or an earlier one
};

// The chosen entries of one part of the index, in archive order.
Result<std::vector<ChosenEntry>, ReadFault> chooseEntries(ArchiveIndex& index, std::size_t part,
                                                          const EntryChoice& choice);

// Supplies the blocks of the chosen entries to a BlockPipeline, each block once. All arguments must outlive the
// pipeline, which opens the leaders that are needed by itself.
class ChosenBlocks {
public:
    ChosenBlocks(const ArchiveFile& file, const BlockMap& map, const std::vector<ChosenEntry>& chosen)
        : file_(file), map_(map), chosen_(chosen) {}

    std::optional<BlockPipeline::Task> operator()();

private:
    const ArchiveFile& file_;
    const BlockMap& map_;
    const std::vector<ChosenEntry>& chosen_;
    std::size_t next_ = 0;
    std::uint64_t sequence_ = 0;
};

// Reads the chosen entries of one index part from the blocks that the pipeline opens.
class ChosenEntryReader {
public:
    // All arguments must outlive the reader. `table` collects the entries of all parts.
    ChosenEntryReader(BlockPipeline& blocks, ArchiveIndex& index, const EntryChoice& choice, EntrySink& sink,
                      EntryTable& table)
        : blocks_(blocks), index_(index), choice_(choice), entry_(sink), table_(table) {}

    // Reads the entry at `place`. Places must ascend.
    ReadOutcome read(const EntryPlace& place);

private:
    ReadOutcome findBlock(std::uint64_t sequence);
    ReadOutcome deliver(const EntryPlace& place);
    std::optional<EntryPlace> locate(std::uint64_t number);
    ReadOutcome damaged(const Error& error);

    BlockPipeline& blocks_;
    ArchiveIndex& index_;
    const EntryChoice& choice_;
    EntryReader entry_;
    EntryTable& table_;
    BlockPointer block_;
};

}  // namespace tarnwick::qvx
