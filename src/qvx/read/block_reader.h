// Blocks of an archive, opened: one at a time from anywhere, or many in a row by all cores.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "qvx/read/archive_file.h"

namespace tarnwick::qvx {

struct BlockPlace {
    std::uint64_t sequence = 0;
    std::uint64_t position = 0;  // in the file, of the block header
};

// Of the content of an entry that stands in one block as a whole and has no holes: all cores can take these at once.
struct PlacedDigest {
    std::size_t offset = 0;  // of the ENTRY record
    Digest digest{};
};

struct OpenedBlock {
    BlockPlace place;
    BlockHeader header;
    std::vector<std::uint8_t> plain;
    std::optional<ReadFault> fault = std::nullopt;  // with one, `plain` is worthless
    std::vector<PlacedDigest> digests = {};

    [[nodiscard]] bool last() const { return header.flags & blockLast; }
};
using BlockPointer = std::shared_ptr<const OpenedBlock>;

ReadFault blockFault(const BlockPlace& place, std::string what);

// Reads the block header at `place`. None, with a text, when there is none or the file ends.
std::optional<BlockHeader> readBlockHeader(const ArchiveFile& file, std::uint64_t position, std::string& what);

// Opens single blocks. One thread at a time.
class BlockOpener {
public:
    using Leader = std::function<BlockPointer()>;

    // Both must outlive the opener. Throws std::bad_alloc.
    BlockOpener(const ArchiveFile& file, const HpkeKeys& keys) : file_(file), decoder_(keys) {}

    // Opens the block at block.place into `block`. `leader` gives the block that leads the group, null when it is not
    // to be had, and is asked only when it is needed. Does not throw for anything that stands in the archive.
    void open(OpenedBlock& block, const Leader& leader);

private:
    const ArchiveFile& file_;
    BlockDecoder decoder_;
    std::vector<std::uint8_t> sealed_;
};

// Where blocks stand in the file, by sequence number.
class BlockMap {
public:
    void add(const BlockPlace& place);  // ascending
    [[nodiscard]] std::optional<BlockPlace> find(std::uint64_t sequence) const;
    [[nodiscard]] const std::vector<BlockPlace>& places() const { return places_; }

private:
    std::vector<BlockPlace> places_;  // ascending
};

// Blocks in any order, by one thread. Keeps the last leader and the last other block.
class RandomBlocks {
public:
    // All three must outlive this.
    RandomBlocks(const ArchiveFile& file, const HpkeKeys& keys, const BlockMap& map)
        : groupLength_(file.header().groupLength), map_(map), opener_(file, keys) {}

    // Never null; a block that the map does not know has a fault.
    BlockPointer get(std::uint64_t sequence);

private:
    BlockPointer open(std::uint64_t sequence);

    std::uint64_t groupLength_;
    const BlockMap& map_;
    BlockOpener opener_;
    BlockPointer leader_;
    BlockPointer other_;
};

// Opens the blocks that a supplier names, in parallel, and hands them out in the supplier's order. Holds two blocks a
// worker, eight more for a consumer who comes in bursts, and a group's leader. The supplier is called from the workers,
// by one at a time. A leader must be named before the blocks of its group that need it. Both ends may close: the
// consumer by destroying the pipeline at any time, the supplier by giving nothing.
class BlockPipeline {
public:
    struct Task {
        BlockPlace place;
        std::optional<ReadFault> fault = std::nullopt;  // hand this out, and open nothing
        bool wanted = true;                             // otherwise opened only to lead its group
        bool digest = false;                            // take the digests of what the block holds as a whole
    };
    using Supplier = std::function<std::optional<Task>()>;

    // Throws std::system_error when no thread can be started.
    BlockPipeline(const ArchiveFile& file, const HpkeKeys& keys, Supplier supplier);
    BlockPipeline(const BlockPipeline&) = delete;
    BlockPipeline& operator=(const BlockPipeline&) = delete;
    ~BlockPipeline();

    // The next block, null at the end.
    BlockPointer next();

private:
    struct Slot {
        OpenedBlock block;
        std::shared_ptr<Slot> leader;
        bool wanted = true;
        bool digest = false;
        bool done = false;
    };

    void work();
    std::shared_ptr<Slot> claim();
    BlockPointer waitForLeader(const std::shared_ptr<Slot>& leader);
    void finish(Slot& slot);

    const ArchiveFile& file_;
    const HpkeKeys& keys_;
    Supplier supplier_;
    std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<Slot>> queue_;
    std::shared_ptr<Slot> leader_;
    bool closed_ = false;     // by the consumer
    bool exhausted_ = false;  // by the supplier
    std::vector<std::jthread> threads_;
};

// Names all blocks from the first to the last one by following their headers, strictly: anything out of order, and
// anything behind the last block, ends it with a fault.
class WholeArchive {
public:
    explicit WholeArchive(const ArchiveFile& file) : file_(&file) {}
    std::optional<BlockPipeline::Task> operator()();

private:
    const ArchiveFile* file_;
    BlockPlace next_{0, plainHeaderSize};
    bool lastSeen_ = false;
    bool ended_ = false;
};

}  // namespace tarnwick::qvx
