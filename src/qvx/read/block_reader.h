// Opens the blocks of an archive: one at a time at any place, or many in order on all cores.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "qvx/format/block_codec.h"
#include "qvx/format/index_codec.h"
#include "qvx/read/archive_file.h"
#include "qvx/read/spare_buffers.h"

namespace tarnwick::qvx {

struct BlockPlace {
    std::uint64_t sequence = 0;
    std::uint64_t position = 0;  // in the file, of the block header
};

// The digest of the content of an entry that announces one, is complete in one block and has no holes. Workers compute
// these in parallel.
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

    [[nodiscard]] bool last() const { return header.last(); }
};
using BlockPointer = std::shared_ptr<const OpenedBlock>;

// A block that unseals has a sequence number below maxBlocks.
inline RecordPlace recordPlace(const OpenedBlock& block, std::size_t offset) {
    return {static_cast<std::uint32_t>(block.place.sequence), static_cast<std::uint32_t>(offset)};
}

ReadFault blockFault(const BlockPlace& place, const Error& error);
ReadFault blockFault(const BlockPlace& place, std::string text);

// Reads the block header at `position`. Fails when there is no valid one or the file ends.
Result<BlockHeader> readBlockHeader(const ArchiveFile& file, std::uint64_t position);

// A block with its header, to be opened. It has a fault if there is no valid header at `place`, or one with another
// sequence number: the nonce comes from the header, so a block that was moved to this place would unseal.
OpenedBlock unopenedBlock(const ArchiveFile& file, const BlockPlace& place);

// Opens single blocks. For one thread at a time.
class BlockOpener {
public:
    // Returns the leader of the block, or null when that is not available. Called only when the block needs it.
    using LeaderSource = std::function<BlockPointer()>;

    // Both references must outlive the opener. With `manyBlocks`, it copies a leader that two blocks in a row name.
    // Throws std::bad_alloc.
    BlockOpener(const ArchiveFile& file, const MessageKeys& keys, bool manyBlocks = false)
        : file_(file), decoder_(keys), copiesLeaders_(manyBlocks) {}

    // Opens a block that unopenedBlock() has returned. Damage in the archive sets block.fault and never throws. A block
    // that has a fault stays as it is.
    void open(OpenedBlock& block, const LeaderSource& leader);

private:
    Status decode(OpenedBlock& block, const LeaderSource& leader);
    Bytes bytesOf(const BlockPointer& leader);

    const ArchiveFile& file_;
    BlockDecoder decoder_;
    const bool copiesLeaders_;
    std::weak_ptr<const OpenedBlock> last_;  // leader
    Bytes copy_;                             // of its bytes; empty if there is none yet
    std::vector<std::uint8_t> sealed_;
};

// The positions of blocks in the file, by sequence number: 8 bytes for each block.
class BlockMap {
public:
    void add(const BlockPlace& place);  // a block that is in the map already keeps its place
    [[nodiscard]] std::optional<BlockPlace> find(std::uint64_t sequence) const;
    [[nodiscard]] std::uint64_t end() const { return positions_.size(); }  // the number after the last block

    // The first block that was added after a later one, or again; none if the blocks were added in order.
    [[nodiscard]] const std::optional<BlockPlace>& misplaced() const { return misplaced_; }

private:
    static constexpr std::uint64_t missing = ~std::uint64_t{0};

    std::optional<BlockPlace> misplaced_;
    std::deque<std::uint64_t> positions_;  // not a vector, which needs twice the memory when it grows
};

// Hints that the blocks from `first` to one before `end` will be read.
void willReadBlocks(const ArchiveFile& file, const BlockMap& map, std::uint64_t first, std::uint64_t end);

// How many leaders a reader of a file keeps in memory at first. Our writer needs one or two.
inline constexpr std::size_t keptLeaders = 4;

// Opens blocks in any order, for one thread. Keeps the last four leaders and the last other block.
class RandomBlocks {
public:
    // All arguments must outlive this object.
    RandomBlocks(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map)
        : file_(file), map_(map), opener_(file, keys) {}

    // Never null. A block that is not in the map has a fault.
    BlockPointer get(std::uint64_t sequence);

    [[nodiscard]] std::uint64_t opened() const { return opened_; }  // count of blocks, leaders included

private:
    BlockPointer find(std::uint64_t sequence) const;
    BlockPointer open(std::uint64_t sequence);
    OpenedBlock unopened(std::uint64_t sequence) const;
    BlockPointer getLeader(std::uint64_t sequence);

    const ArchiveFile& file_;
    const BlockMap& map_;
    BlockOpener opener_;
    std::deque<BlockPointer> leaders_;
    BlockPointer other_;
    std::uint64_t opened_ = 0;
};

// Opens the blocks that a supplier names, in parallel, and returns them in the order of the supplier. The workers call
// the supplier, one at a time. Either end may close: the consumer by destroying the pipeline at any time, the supplier
// by returning nothing.
//
// A block is damaged if it names a block that is no leader, or none of the last 16 leaders that the supplier has named.
// A supplier that leaves out blocks passes a map instead, in which any leader may be. Of a file, the pipeline keeps the
// last four leaders in memory, and opens another one again when a block names it. Of a stream and a server, which would
// not or only slowly give it again, it keeps the last 16.
//
// Memory, with 8 workers: 16 blocks in the queue (1 MiB plain, and 160 KiB of digests each), 4 or 16 leaders, 3 MiB and
// 160 KiB for each worker, and the block that the consumer uses: 49 or 61 MiB. A RandomBlocks adds 7 MiB, and a
// BlockMap 8 bytes for each block of the archive.
class BlockPipeline {
public:
    struct Task {
        OpenedBlock block;    // not opened yet; one with a fault is returned as it is
        bool digest = false;  // compute the digests of entries that are complete in it
    };
    using Supplier = std::function<std::optional<Task>()>;

    // Both references and `map`, unless it is null, must outlive the pipeline. Throws std::system_error when not a
    // single thread can be started.
    BlockPipeline(const ArchiveFile& file, const MessageKeys& keys, Supplier supplier, const BlockMap* map = nullptr);
    BlockPipeline(const BlockPipeline&) = delete;
    BlockPipeline& operator=(const BlockPipeline&) = delete;
    ~BlockPipeline();

    // The next block; null at the end.
    BlockPointer next();

private:
    struct Slot {
        OpenedBlock block;
        std::shared_ptr<Slot> leader = nullptr;
        bool requested = true;  // by the supplier
        bool digest = false;
        bool done = false;
    };
    using SlotPointer = std::shared_ptr<Slot>;

    void work();
    SlotPointer claim();
    bool waitForSpace();
    SlotPointer nextSlot();
    [[nodiscard]] SlotPointer makeSlot(Slot slot) const;
    [[nodiscard]] std::optional<BlockPlace> placeOfLeader(const BlockHeader& header) const;
    [[nodiscard]] SlotPointer findLeader(const BlockPlace& place) const;
    [[nodiscard]] SlotPointer fetchLeader(const BlockPlace& place) const;
    void keepLeader(SlotPointer leader) noexcept;
    BlockPointer waitForLeader(const SlotPointer& leader);
    void finish(Slot& slot);

    const ArchiveFile& file_;
    const MessageKeys& keys_;
    const BlockMap* map_;
    std::size_t limit_;
    const std::shared_ptr<SpareBuffers> spare_ = std::make_shared<SpareBuffers>();  // a block may outlive the pipeline

    std::mutex supplying_;  // for these; locked before the other
    Supplier supplier_;
    SlotPointer postponed_;              // comes after its leader, which is opened first
    std::size_t maxKept_;                // leaders in memory
    std::vector<SlotPointer> leaders_;   // the last ones
    std::vector<BlockPlace> lastNamed_;  // of the leaders that the supplier has named, at most maxLeaders

    std::mutex mutex_;  // for these
    std::condition_variable changed_;
    std::deque<SlotPointer> queue_;
    bool closed_ = false;     // the consumer has closed
    bool exhausted_ = false;  // the supplier has ended
    std::vector<std::jthread> threads_;
};

// Names all blocks from the first to the last by following their headers. Strict: a block out of order, and anything
// after the last block, ends it with a fault.
class AllBlocks {
public:
    explicit AllBlocks(const ArchiveFile& file) : file_(&file), next_{0, file.blocksBegin()} {}
    std::optional<BlockPipeline::Task> operator()();

private:
    std::optional<BlockPipeline::Task> end(const Status& checked);

    const ArchiveFile* file_;
    BlockPlace next_;
    bool pastLast_ = false;
    bool ended_ = false;
};

// Names all blocks of a map in order.
class MappedBlocks {
public:
    MappedBlocks(const ArchiveFile& file, const BlockMap& map) : file_(&file), map_(&map) {}
    std::optional<BlockPipeline::Task> operator()();

private:
    const ArchiveFile* file_;
    const BlockMap* map_;
    std::uint64_t next_ = 0;
};

}  // namespace tarnwick::qvx
