#include "qvx/read/block_cache.h"

#include <algorithm>
#include <new>
#include <system_error>

namespace tarnwick::qvx {

namespace {

constexpr unsigned maxWorkers = 8;
constexpr std::size_t maxAhead = 32;  // blocks; far enough to keep all cores busy, and a quarter of the cache at most
constexpr unsigned maxRun = 5;        // 2^5 blocks ahead

}  // namespace

BlockCache::BlockCache(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map, std::uint64_t bytes)
    : file_(file), keys_(keys), map_(map), limit_(static_cast<std::size_t>(std::max(bytes, minBytes) / blockSize)) {}

// The threads are the last member, so they are joined right after this, when the lock is released.
BlockCache::~BlockCache() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

BlockPointer BlockCache::get(std::uint64_t sequence) {
    Lock lock(mutex_);
    auto block = fetch(lock, sequence);
    noteUse(sequence);
    return block;
}

// Returns with the lock, but opens the block without it.
BlockPointer BlockCache::fetch(Lock& lock, std::uint64_t sequence) {
    const auto found = slots_.find(sequence);
    if (found != slots_.end()) {
        const SlotPointer slot = found->second;
        recent_.splice(recent_.begin(), recent_, slot->recency);
        changed_.wait(lock, [&] { return slot->block != nullptr; });
        return slot->block;
    }
    // All that can fail for want of memory is done before other threads can wait for the block.
    const auto block = makeBlock();
    const SlotPointer slot = add(sequence);
    lock.unlock();
    open(sequence, *block);
    lock.lock();
    finish(sequence, *slot, block);
    return block;
}

std::shared_ptr<OpenedBlock> BlockCache::makeBlock() {
    const auto recycle = [spare = spare_](OpenedBlock* block) {
        spare->give(std::move(block->plain));
        delete block;
    };
    return {new OpenedBlock, recycle};
}

BlockCache::SlotPointer BlockCache::add(std::uint64_t sequence) {
    evict();
    auto slot = std::make_shared<Slot>();
    recent_.push_front(sequence);
    slot->recency = recent_.begin();
    try {
        slots_.emplace(sequence, slot);
    } catch (...) {
        recent_.pop_front();
        throw;
    }
    return slot;
}

// A block that is being opened stays: other threads may wait for it.
void BlockCache::evict() {
    for (auto last = recent_.end(); slots_.size() >= limit_ && last != recent_.begin();) {
        --last;
        const auto slot = slots_.find(*last);
        if (!slot->second->block) continue;
        slots_.erase(slot);
        last = recent_.erase(last);
    }
}

// A block with a fault is not kept: the next read of a remote archive may succeed.
void BlockCache::finish(std::uint64_t sequence, Slot& slot, BlockPointer block) {
    slot.block = std::move(block);
    if (slot.block->fault) {
        recent_.erase(slot.recency);
        slots_.erase(sequence);
    }
    changed_.notify_all();
}

void BlockCache::open(std::uint64_t sequence, OpenedBlock& block) {
    block.place = {sequence, 0};
    try {
        if (const auto place = map_.find(sequence)) {
            willReadBlocks(file_, map_, sequence, sequence + 1);
            block = unopenedBlock(file_, *place);
            block.plain = spare_->take();
            openWithLeader(block);
        } else {
            block.fault = ReadFault{{"there is no such block"}, sequence};
        }
    } catch (const std::bad_alloc&) {
        block.fault.emplace().text = "out of memory";  // short enough to need no allocation
    }
}

void BlockCache::openWithLeader(OpenedBlock& block) {
    // Before an opener is borrowed: to open the leader takes one, too.
    BlockPointer needed = block.header.needsLeader() ? leader(block.header.leader) : nullptr;
    auto opener = borrowOpener();
    opener->open(block, [&] { return needed; });
    const std::lock_guard lock(mutex_);
    openers_.push_back(std::move(opener));
}

// Looks at the header before the block is opened: one that is no leader could name another block, and so on.
BlockPointer BlockCache::leader(std::uint64_t sequence) {
    Lock lock(mutex_);
    if (!slots_.contains(sequence)) {
        lock.unlock();
        const auto place = map_.find(sequence);
        if (!place || !unopenedBlock(file_, *place).header.leads()) return nullptr;
        lock.lock();
    }
    const auto block = fetch(lock, sequence);
    return block->header.leads() ? block : nullptr;
}

BlockCache::Opener BlockCache::borrowOpener() {
    const std::lock_guard lock(mutex_);
    if (openers_.empty()) return std::make_unique<BlockOpener>(file_, keys_);
    auto opener = std::move(openers_.back());
    openers_.pop_back();
    return opener;
}

// The longer blocks were asked for in order, the farther it reads ahead.
void BlockCache::noteUse(std::uint64_t sequence) {
    const auto found = slots_.find(sequence);
    if (found == slots_.end() || found->second->used) return;
    Slot& slot = *found->second;
    slot.used = true;
    const auto before = sequence > 0 ? slots_.find(sequence - 1) : slots_.end();
    if (before == slots_.end() || !before->second->used) return;
    slot.run = std::min(before->second->run + 1, maxRun);
    readAhead(sequence + 1, std::min({std::size_t{1} << slot.run, maxAhead, limit_ / 4}));
}

void BlockCache::readAhead(std::uint64_t sequence, std::size_t count) {
    const std::uint64_t end = std::min(sequence + count, map_.end());
    if (sequence < end) willReadBlocks(file_, map_, sequence, end);
    for (; sequence < end; ++sequence)
        if (!slots_.contains(sequence) && std::ranges::find(wanted_, sequence) == wanted_.end())
            wanted_.push_back(sequence);
    while (wanted_.size() > maxAhead) wanted_.pop_front();  // of a reader that is elsewhere by now
    startWorkers();
    changed_.notify_all();
}

// Without threads, blocks are opened only when they are needed.
void BlockCache::startWorkers() {
    if (std::exchange(started_, true)) return;
    const unsigned count = std::clamp(std::thread::hardware_concurrency(), 1U, maxWorkers);
    try {
        for (unsigned i = 0; i < count; ++i) workers_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
    }
}

void BlockCache::work() {
    Lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return closed_ || !wanted_.empty(); });
        if (closed_) return;
        const std::uint64_t sequence = wanted_.front();
        wanted_.pop_front();
        try {
            if (!slots_.contains(sequence)) static_cast<void>(fetch(lock, sequence));
        } catch (const std::bad_alloc&) {
            wanted_.clear();
        }
    }
}

}  // namespace tarnwick::qvx
