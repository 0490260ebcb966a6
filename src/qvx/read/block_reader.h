// Opens the blocks of an archive: one at a time at any place, or many in order on all cores.
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

// The digest of the content of an entry that is complete in one block and has no holes. Workers compute these in
// parallel.
struct PlacedDigest {
    std::size_t offset = 0;  // of the ENTRY record
    Digest digest{};
};

struct OpenedBlock {
    BlockPlace place;
    BlockHeader header;
    std::vector<std::uint8_t> plain;
    std::optional<ReadFault> fault = std::nullopt;  // when set, `plain` is meaningless
    std::vector<PlacedDigest> digests = {};

    [[nodiscard]] bool last() const { return header.flags & blockLast; }
};
using BlockPointer = std::shared_ptr<const OpenedBlock>;

ReadFault blockFault(const BlockPlace& place, const Error& error);
ReadFault blockFault(const BlockPlace& place, std::string text);

// Reads the block header at `position`. Fails when there is no valid one or the file ends.
Result<BlockHeader> readBlockHeader(const ArchiveFile& file, std::uint64_t position);

// Opens single blocks. For one thread at a time.
class BlockOpener {
public:
    using Leader = std::function<BlockPointer()>;

    // Both arguments must outlive the opener. Throws std::bad_alloc.
    BlockOpener(const ArchiveFile& file, const HpkeKeys& keys) : file_(file), decoder_(keys) {}

    // Opens the block at block.place into `block`. `leader` returns the leader of its group, or null when that is not
    // available; it is called only when the block needs it. Damage in the archive sets block.fault and never throws.
    void open(OpenedBlock& block, const Leader& leader);

private:
    Status decode(OpenedBlock& block, const Leader& leader);

    const ArchiveFile& file_;
    BlockDecoder decoder_;
    std::vector<std::uint8_t> sealed_;
};

// The positions of blocks in the file, by sequence number.
class BlockMap {
public:
    void add(const BlockPlace& place);  // ascending
    [[nodiscard]] std::optional<BlockPlace> find(std::uint64_t sequence) const;
    [[nodiscard]] const std::vector<BlockPlace>& places() const { return places_; }

private:
    std::vector<BlockPlace> places_;  // ascending
};

// Opens blocks in any order, for one thread. Keeps the last leader and the last other block.
class RandomBlocks {
public:
    // All arguments must outlive this object.
    RandomBlocks(const ArchiveFile& file, const HpkeKeys& keys, const BlockMap& map)
        : groupLength_(file.header().groupLength), map_(map), opener_(file, keys) {}

    // Never null. A block that is not in the map has a fault.
    BlockPointer get(std::uint64_t sequence);

private:
    BlockPointer open(std::uint64_t sequence);

    std::uint64_t groupLength_;
    const BlockMap& map_;
    BlockOpener opener_;
    BlockPointer leader_;
    BlockPointer other_;
};

// Opens the blocks that a supplier names, in parallel, and returns them in the order of the supplier. Memory: two
// blocks for each worker, eight more for a consumer that reads in bursts, and the leader of a group. The workers call
// the supplier, one at a time. The supplier must name a leader before the blocks of its group that need it. Either end
// may close: the consumer by destroying the pipeline at any time, the supplier by returning nothing.
class BlockPipeline {
public:
    struct Task {
        BlockPlace place;
        std::optional<ReadFault> fault = std::nullopt;  // return this fault and open nothing
        bool requested = true;                          // false: opened only because its group needs it
        bool digest = false;                            // compute the digests of the entries that are complete in it
    };
    using Supplier = std::function<std::optional<Task>()>;

    // Throws std::system_error when not a single thread can be started.
    BlockPipeline(const ArchiveFile& file, const HpkeKeys& keys, Supplier supplier);
    BlockPipeline(const BlockPipeline&) = delete;
    BlockPipeline& operator=(const BlockPipeline&) = delete;
    ~BlockPipeline();

    // The next block; null at the end.
    BlockPointer next();

private:
    struct Slot {
        OpenedBlock block;
        std::shared_ptr<Slot> leader;
        bool requested = true;
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
    bool closed_ = false;     // the consumer has closed
    bool exhausted_ = false;  // the supplier has ended
    std::vector<std::jthread> threads_;
};

// Names all blocks from the first to the last by following their headers. Strict: a block out of order, and anything
// after the last block, ends it with a fault.
class AllBlocks {
public:
    explicit AllBlocks(const ArchiveFile& file) : file_(&file) {}
    std::optional<BlockPipeline::Task> operator()();

private:
    const ArchiveFile* file_;
    BlockPlace next_{0, plainHeaderSize};
    bool pastLast_ = false;
    bool ended_ = false;
};

}  // namespace tarnwick::qvx
