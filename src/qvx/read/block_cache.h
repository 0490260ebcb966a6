// Opened blocks of an archive, for threads that read at any place. Keeps the last ones within a limit, and reads ahead
// on all cores when blocks are asked for in order.
#pragma once

#include <list>
#include <unordered_map>

#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

class BlockCache {
public:
    static constexpr std::uint64_t minBytes = 8 * std::uint64_t{blockSize};

    // The references must outlive the cache. `bytes` (at least minBytes) limits the plain bytes that are kept. More
    // memory is in use while blocks are opened: 2 MiB for each thread that reads or reads ahead. Starts no thread
    // before it first reads ahead.
    BlockCache(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map, std::uint64_t bytes);
    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;
    ~BlockCache();

    // Any thread. Never null: a block that cannot be opened has a fault, and the next call tries again.
    BlockPointer get(std::uint64_t sequence);

    [[nodiscard]] std::uint64_t end() const { return map_.end(); }  // the number after the last block

private:
    struct Slot {
        BlockPointer block = nullptr;  // null while a thread opens it
        bool used = false;             // somebody has asked for it, so that it was not only read ahead
        unsigned run = 0;              // count of the blocks right before it that were asked for, up to a limit
        std::list<std::uint64_t>::iterator recency{};
    };
    using SlotPointer = std::shared_ptr<Slot>;
    using Lock = std::unique_lock<std::mutex>;
    using Opener = std::unique_ptr<BlockOpener>;

    BlockPointer fetch(Lock& lock, std::uint64_t sequence);
    std::shared_ptr<OpenedBlock> makeBlock();
    SlotPointer add(std::uint64_t sequence);
    void evict();
    void finish(std::uint64_t sequence, Slot& slot, BlockPointer block);
    void open(std::uint64_t sequence, OpenedBlock& block);
    void openWithLeader(OpenedBlock& block);
    BlockPointer leader(std::uint64_t sequence);
    Opener borrowOpener();
    void noteUse(std::uint64_t sequence);
    void readAhead(std::uint64_t sequence, std::size_t count);
    void startWorkers();
    void work();

    const ArchiveFile& file_;
    const MessageKeys& keys_;
    const BlockMap& map_;
    const std::size_t limit_;                                                       // count of blocks
    const std::shared_ptr<SpareBuffers> spare_ = std::make_shared<SpareBuffers>();  // a block may outlive the cache
    std::mutex mutex_;
    std::condition_variable changed_;
    std::unordered_map<std::uint64_t, SlotPointer> slots_;
    std::list<std::uint64_t> recent_;   // the numbers of all slots, the last used first
    std::deque<std::uint64_t> wanted_;  // to be read ahead
    std::vector<Opener> openers_;       // not in use
    bool closed_ = false;
    bool started_ = false;
    std::vector<std::jthread> workers_;
};

}  // namespace tarnwick::qvx
