// Reads the contents of entries at any place, and only the blocks that are needed for it.
//
// A digest cannot be checked on the way: what is read is authentic, because its blocks are sealed, and it is where the
// records of the entry say.
#pragma once

#include <list>

#include "qvx/format/entry.h"
#include "qvx/read/block_cache.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// An entry as the index describes it.
struct IndexedEntry {
    std::uint64_t number = 0;
    EntryType type = EntryType::file;
    std::string path;
    std::uint64_t size = 0;  // of the content
};

// Where the entry with this number begins; none if there is no such entry. Any thread may call it.
using EntryLocator = std::function<std::optional<RecordPlace>(std::uint64_t number)>;

// The content of one file, or the target of a link. Any number of threads.
class EntryContent {
public:
    // `blocks` must outlive this object. Reads nothing yet.
    EntryContent(BlockCache& blocks, EntryLocator locate, IndexedEntry entry);

    // Fills the beginning of `bytes` from the content at `position`, and returns how many bytes that was: fewer than
    // asked for only at the end. Reads the blocks from the beginning of the entry up to that position when it is
    // reached for the first time, later only those with the bytes. Fails when these blocks are damaged, or the entry is
    // not what the index says; content before that can still be read.
    Result<std::size_t> read(std::uint64_t position, MutableBytes bytes);

    [[nodiscard]] std::uint64_t number() const { return entry_.number; }

    // Bytes of memory for the places of the content. Does not wait for a read.
    [[nodiscard]] std::size_t memory() const { return memory_; }

private:
    // A block with a part of the content.
    struct Piece {
        std::uint64_t sequence = 0;
        std::size_t offset = 0;  // where the records begin
        Extent extent;           // of the content
    };

    Status measure(std::uint64_t end);
    Status begin(std::uint64_t number, const RecordPlace& place, const std::string* path);
    Status measureBlock();
    Status finish(std::uint64_t size, RecordPlace end);
    Status follow(std::uint64_t number);
    Result<EntryTail> readTail(RecordPlace end);
    [[nodiscard]] std::vector<Piece> piecesOf(const Extent& extent) const;
    Status copy(const Piece& piece, std::uint64_t position, MutableBytes bytes);
    Result<BlockPointer> block(std::uint64_t sequence);
    [[nodiscard]] Error error(std::string text) const;

    BlockCache& blocks_;
    const EntryLocator locate_;
    const IndexedEntry entry_;
    std::atomic<std::size_t> memory_ = 0;

    std::mutex mutex_;                   // for all below
    RecordPlace place_;                  // of the ENTRY record
    RecordPlace first_;                  // of the record after it
    std::vector<std::uint64_t> starts_;  // of the content in each block from there; last, where the next one starts
    bool ended_ = false;                 // the END record was read, and all is as it says
    bool referred_ = false;              // the places are those of the other entry that has the content
};

// Keeps the last contents that were read, within a limit.
class EntryContents {
public:
    EntryContents(BlockCache& blocks, EntryLocator locate) : blocks_(blocks), locate_(std::move(locate)) {}

    // Any thread.
    std::shared_ptr<EntryContent> get(const IndexedEntry& entry);

private:
    void evict();

    BlockCache& blocks_;
    const EntryLocator locate_;
    std::mutex mutex_;
    std::list<std::shared_ptr<EntryContent>> recent_;  // the last used first
};

}  // namespace tarnwick::qvx
