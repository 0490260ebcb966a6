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

// Where an entry is, as the index says.
struct EntryLocation {
    RecordPlace place;            // of its ENTRY record
    std::uint32_t lastBlock = 0;  // with the end of its END record
};

EntryLocation locationOf(const IndexEntry& entry);

// Where the entry with this number is; none if there is no such entry. Any thread may call it.
using EntryLocator = std::function<std::optional<EntryLocation>(std::uint64_t number)>;

// The content of one file, or the target of a link. Any number of threads.
class EntryContent {
public:
    // `blocks` must outlive this object. Reads nothing yet.
    EntryContent(BlockCache& blocks, EntryLocator locate, IndexedEntry entry);

    // Bytes of the content, which are in the block, or zeros of a hole.
    struct Part {
        BlockPointer block;
        Bytes bytes;  // empty for zeros
        std::uint64_t length = 0;
    };

    // The content from `position` on, of the length or up to its end, without a copy. To find a position for the first
    // time, this opens all blocks of the entry up to it, from the beginning or from the end, whichever is nearer; later
    // only those with the bytes. Fails when the bytes are damaged, or the entry is not what the index says; the content
    // before and after that can still be read.
    Result<std::vector<Part>> parts(std::uint64_t position, std::uint64_t length);

    // The same as a copy: fills the beginning of `bytes`, and returns how many bytes that was.
    Result<std::size_t> read(std::uint64_t position, MutableBytes bytes);

    [[nodiscard]] std::uint64_t number() const { return entry_.number; }

    // Bytes of memory for the places of the content. Does not wait for a read.
    [[nodiscard]] std::size_t memory() const { return memory_; }

private:
    // A block with a part of the content.
    struct Piece {
        std::size_t number = 0;  // of the block in the entry, from 0
        Extent extent;           // of the content
    };

    // What is in one block.
    struct Scan {
        std::uint64_t size = 0;          // bytes of the content
        std::optional<std::size_t> end;  // offset of the END record, or of its rest
    };

    Status open();
    Status openAt(std::uint64_t number, const std::string* path);
    Status followReference();
    Status measure(const Extent& extent);
    Status measureFront();
    Status measureBack();
    [[nodiscard]] bool isMeasured(const Extent& extent) const;
    Status checkEnd();
    Result<EntryTail> readTail();
    Result<Scan> scan(std::size_t number);
    [[nodiscard]] std::vector<Piece> piecesOf(const Extent& extent) const;
    Status addParts(const Piece& piece, const Extent& extent, std::vector<Part>& parts);
    Result<BlockPointer> block(std::size_t number);
    [[nodiscard]] std::size_t blocks() const { return starts_.size() - 1; }
    [[nodiscard]] std::size_t offsetIn(std::size_t number) const { return number == 0 ? first_.offset : 0; }
    [[nodiscard]] Error blockError(const OpenedBlock& block) const;
    [[nodiscard]] Error error(std::string text) const;

    BlockCache& blocks_;
    const EntryLocator locate_;
    const IndexedEntry entry_;
    std::atomic<std::size_t> memory_ = 0;

    std::mutex mutex_;   // for all below
    RecordPlace place_;  // of the ENTRY record, of the entry that has the content
    RecordPlace first_;  // of the record after it

    // By block: where its content starts. Known up to front_, and from back_ on to the last one, which is the size.
    std::vector<std::uint64_t> starts_;
    std::size_t front_ = 0;
    std::size_t back_ = 0;
    bool endChecked_ = false;
    bool referred_ = false;  // another entry has the content
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
