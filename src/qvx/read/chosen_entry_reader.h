// Reads chosen entries through the index, without reading the rest of the archive.
#pragma once

#include <deque>

#include "qvx/read/deferred_entries.h"
#include "qvx/read/entry_table.h"
#include "qvx/read/index_reader.h"

namespace tarnwick::qvx {

// What the index says of an entry.
struct ChosenEntry {
    ChosenEntry(std::uint64_t entryNumber, const IndexEntry& entry);

    [[nodiscard]] RecordPlace place() const {
        return {static_cast<std::uint32_t>(block), static_cast<std::uint32_t>(offset)};
    }
    [[nodiscard]] std::uint64_t lastBlock() const { return std::uint64_t{block} + span; }
    [[nodiscard]] bool isBegunBy(const EntryHead& head) const;

    std::uint64_t block : 21;
    std::uint64_t offset : 20;
    std::uint64_t span : 21;  // count of blocks after that one, up to the one of its END record
    std::uint64_t incomplete : 1;
    std::uint32_t number;
    std::uint32_t pathHash;
};
static_assert(sizeof(ChosenEntry) == 16);
static_assert(maxBlocks == 1 << 21 && blockSize == 1 << 20);
using ChosenEntries = std::deque<ChosenEntry>;  // which grows without a copy

// Adds the chosen entries in the order in which they are stored, also when a part of the index is damaged: those of the
// other parts before it.
Result<void, ReadFault> chooseEntries(ArchiveIndex& index, const EntryChoice& choice, ChosenEntries& chosen);

// Supplies the blocks of the chosen entries to a BlockPipeline, each block once, and announces how many bytes they are.
// `file` and `map` must outlive the pipeline, which opens the leaders that are needed by itself.
class ChosenBlocks {
public:
    // For metadata, the blocks in the middle of an entry are left out: of each entry, the first two remain (the target
    // of a link may begin in one and end in the other) and the last four, which contain the whole END record.
    enum class Part { everything, metadata };

    ChosenBlocks(const ArchiveFile& file, const BlockMap& map, const ChosenEntries& chosen,
                 Part part = Part::everything);

    std::optional<BlockPipeline::Task> operator()();

private:
    // A range for each gap between the entries, so that the consumer can free the entries that it has read.
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };

    // Where in the ranges this or the look-ahead is.
    struct Cursor {
        std::size_t range = 0;
        std::uint32_t block = 0;
    };

    void add(std::uint64_t first, std::uint64_t last);
    [[nodiscard]] std::uint64_t bytes() const;
    std::optional<std::uint64_t> next(Cursor& cursor) const;
    void lookAhead();

    const ArchiveFile& file_;
    const BlockMap& map_;
    std::vector<Range> ranges_;
    Cursor supplied_;
    Cursor hinted_;          // so far the source knows what will be read
    std::size_t ahead_ = 0;  // blocks from supplied_ to hinted_
};

// Begins an entry at another sink only when its content comes, or its end: until then, nothing is known about an entry
// that is dropped.
class LateSink : public EntrySink {
public:
    explicit LateSink(EntrySink& sink) : sink_(sink) {}
    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override { return start() && sink_.data(bytes); }
    bool hole(std::uint64_t length) override { return start() && sink_.hole(length); }
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

private:
    bool start();

    EntrySink& sink_;
    const EntryHead* head_ = nullptr;  // of the entry that is not begun yet
};

// Reads the chosen entries from the blocks that the pipeline opens.
class ChosenEntryReader {
public:
    // All arguments must outlive the reader. `contents` reads those of entries that were read before.
    ChosenEntryReader(BlockPipeline& blocks, const EntryChoice& choice, EntrySink& sink, RereadContents& contents,
                      DeferredEntries& deferred, EntryReader::Scope scope = EntryReader::Scope::someEntries)
        : blocks_(blocks),
          choice_(choice),
          sink_(sink),
          contents_(contents),
          deferred_(deferred),
          entry_(sink_, scope) {}

    // Reads an entry, and delivers or defers it. Call it in the order in which they are stored. After damage, the next
    // one can be read.
    ReadOutcome read(const ChosenEntry& chosen);

private:
    ReadOutcome findBlock(std::uint64_t sequence);
    ReadOutcome deliver(const ChosenEntry& chosen);
    ReadOutcome defer(const ChosenEntry& chosen);
    ReadOutcome damaged(const Error& error);

    BlockPipeline& blocks_;
    const EntryChoice& choice_;
    LateSink sink_;
    RereadContents& contents_;
    DeferredEntries& deferred_;
    EntryReader entry_;
    EntryTable table_;
    BlockPointer block_;
};

}  // namespace tarnwick::qvx
