#include "qvx/read/block_reader.h"

#include <algorithm>
#include <new>
#include <system_error>

#include "qvx/format/content_digest.h"
#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

namespace {

// Bounds the memory on a machine with many cores.
constexpr unsigned maxWorkers = 32;

const char* describe(BlockFault fault) {
    switch (fault) {
        case BlockFault::none: break;
        case BlockFault::seal: return "the block is changed, or not of this archive";
        case BlockFault::content: return "the block is malformed, although its seal is valid: its writer is faulty";
        case BlockFault::memory: return "out of memory";
    }
    return "";
}

Error wrongNumber(std::uint64_t found) { return {"block " + std::to_string(found) + " is in its place"}; }

// Only entries that are complete in this block: the content of the others is spread over blocks that other workers
// open. An entry with a hole is left to the consumer, which can stop in the middle of a long hole.
std::vector<PlacedDigest> digestContents(Bytes plain) {
    std::vector<PlacedDigest> digests;
    ContentDigest digest;
    std::vector<Bytes> content;
    bool whole = false;  // the current entry began in this block and has no hole so far
    std::size_t begin = 0;
    std::size_t offset = 0;
    RecordCursor cursor(plain);
    while (const auto record = cursor.next()) {
        if (record->type == RecordType::entry) {
            whole = true;
            begin = offset;
            content.clear();
        } else if (record->type == RecordType::data) {
            content.push_back(record->payload);
        } else if (record->type == RecordType::end && whole) {
            digest.restart();
            for (const Bytes part : content) digest.add(part);
            digests.push_back({begin, digest.finish()});
            whole = false;
        } else {
            whole = false;
        }
        offset = cursor.offset();
    }
    return digests;
}

}  // namespace

ReadFault blockFault(const BlockPlace& place, const Error& error) { return {error, place.sequence, place.position}; }

ReadFault blockFault(const BlockPlace& place, std::string text) { return blockFault(place, Error{std::move(text)}); }

Result<BlockHeader> readBlockHeader(const ArchiveFile& file, std::uint64_t position) {
    std::array<std::uint8_t, blockHeaderSize> bytes{};
    if (auto read = file.read(position, bytes); !read) return read.error();
    const auto header = decodeBlockHeader(bytes);
    // A leader that needed a dictionary would wait for itself.
    const bool leads = header && header->sequence == leaderOf(header->sequence, file.header().groupLength);
    if (header && !(leads && (header->flags & blockWithDictionary))) return *header;
    return Error{"the block header is damaged"};
}

void BlockOpener::open(OpenedBlock& block, const Leader& leader) {
    if (const Status decoded = decode(block, leader); !decoded) block.fault = blockFault(block.place, decoded.error());
}

Status BlockOpener::decode(OpenedBlock& block, const Leader& leader) {
    const auto header = readBlockHeader(file_, block.place.position);
    if (!header) return header.error();
    // The nonce comes from the header, so a block that was moved to this place would unseal without an error.
    if (header->sequence != block.place.sequence) return wrongNumber(header->sequence);
    block.header = *header;
    // This opener may have to open the leader too. That uses `sealed_`, so it must happen before the block is read into
    // it.
    BlockPointer dictionary;
    if (block.header.flags & blockWithDictionary) {
        dictionary = leader();
        if (!dictionary || dictionary->fault) return Error{"the leader of its group is damaged or missing"};
    }
    // At most one block and its tag: decodeBlockHeader() refuses a longer one.
    sealed_.resize(header->sealedLength);
    if (auto read = file_.read(block.place.position + blockHeaderSize, sealed_); !read) return read;
    const auto fault =
        decoder_.decode(block.header, sealed_, dictionary ? Bytes(dictionary->plain) : Bytes{}, block.plain);
    if (fault == BlockFault::none) return {};
    return Error{describe(fault)};
}

void BlockMap::add(const BlockPlace& place) { places_.push_back(place); }

std::optional<BlockPlace> BlockMap::find(std::uint64_t sequence) const {
    const auto found =
        std::lower_bound(places_.begin(), places_.end(), sequence,
                         [](const BlockPlace& place, std::uint64_t key) { return place.sequence < key; });
    if (found == places_.end() || found->sequence != sequence) return std::nullopt;
    return *found;
}

BlockPointer RandomBlocks::get(std::uint64_t sequence) {
    // Two slots: with one, every block of a group would replace the leader that the next block needs.
    auto& cached = sequence == leaderOf(sequence, groupLength_) ? leader_ : other_;
    if (!cached || cached->place.sequence != sequence) cached = open(sequence);
    return cached;
}

BlockPointer RandomBlocks::open(std::uint64_t sequence) {
    const auto block = std::make_shared<OpenedBlock>();
    const auto place = map_.find(sequence);
    block->place = place.value_or(BlockPlace{sequence, 0});
    if (place) {
        opener_.open(*block, [&] { return get(leaderOf(sequence, groupLength_)); });
    } else {
        block->fault = ReadFault{{"there is no such block"}, sequence};
    }
    return block;
}

BlockPipeline::BlockPipeline(const ArchiveFile& file, const HpkeKeys& keys, Supplier supplier)
    : file_(file), keys_(keys), supplier_(std::move(supplier)) {
    // hardware_concurrency() is 0 when the number of cores is not known.
    const unsigned workers = std::clamp(std::thread::hardware_concurrency(), 1U, maxWorkers);
    limit_ = 2UL * workers + 8;
    threads_.reserve(workers);
    for (unsigned i = 0; i < workers; ++i) {
        try {
            threads_.emplace_back([this] { work(); });
        } catch (...) {
            if (threads_.empty()) throw;
            break;  // fewer threads work as well
        }
    }
}

// The threads are the last member, so they are joined right after this, when the lock is released.
BlockPipeline::~BlockPipeline() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

BlockPointer BlockPipeline::next() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return queue_.empty() ? exhausted_ : queue_.front()->done; });
        if (queue_.empty()) return nullptr;
        auto slot = std::move(queue_.front());
        queue_.pop_front();
        changed_.notify_all();
        // The pointer shares the slot: the consumer may use the block after the pipeline is gone.
        if (slot->requested) return {slot, &slot->block};
    }
}

// When memory runs out, the blocks end early. No reader accepts that as a whole archive.
void BlockPipeline::work() {
    std::shared_ptr<Slot> slot;
    try {
        BlockOpener opener(file_, keys_);
        while ((slot = claim())) {
            if (!slot->block.fault) opener.open(slot->block, [&] { return waitForLeader(slot->leader); });
            if (slot->digest && !slot->block.fault) slot->block.digests = digestContents(slot->block.plain);
            finish(*slot);
            slot.reset();  // from here on the consumer owns it
        }
    } catch (const std::bad_alloc&) {
        if (slot) {
            slot->block.fault.emplace().text = "out of memory";  // short enough to need no allocation
            finish(*slot);
        }
        const std::lock_guard lock(mutex_);
        exhausted_ = true;
        changed_.notify_all();
    }
}

// Slots are queued in the order in which workers claim them, so a leader is always in progress before its group.
std::shared_ptr<BlockPipeline::Slot> BlockPipeline::claim() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || exhausted_ || queue_.size() < limit_; });
    if (closed_ || exhausted_) return nullptr;
    // Called under the lock, so that the queue has the order of the supplier.
    auto task = supplier_();
    if (!task) {
        exhausted_ = true;
        changed_.notify_all();
        return nullptr;
    }
    auto slot = std::make_shared<Slot>();
    slot->block.place = task->place;
    slot->block.fault = std::move(task->fault);
    slot->requested = task->requested;
    slot->digest = task->digest;
    const std::uint64_t groupLength = file_.header().groupLength;
    const std::uint64_t group = task->place.sequence / groupLength;
    const bool leads = task->place.sequence == leaderOf(task->place.sequence, groupLength);
    if (!leads && leader_ && leader_->block.place.sequence / groupLength == group) slot->leader = leader_;
    queue_.push_back(slot);
    if (leads) leader_ = slot;  // only now, when this worker is certain to open it
    return slot;
}

// A block that is done does not change any more, so it may be read without the lock.
// The wait ends: the leader was claimed before, and no leader waits for another block (readBlockHeader).
BlockPointer BlockPipeline::waitForLeader(const std::shared_ptr<Slot>& leader) {
    if (!leader) return nullptr;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return leader->done; });
    return {leader, &leader->block};
}

void BlockPipeline::finish(Slot& slot) {
    const std::lock_guard lock(mutex_);
    slot.done = true;
    // Otherwise each block would keep its leader in memory for as long as the consumer keeps the block.
    slot.leader.reset();
    changed_.notify_all();
}

std::optional<BlockPipeline::Task> AllBlocks::operator()() {
    if (ended_) return std::nullopt;
    if (pastLast_) {
        ended_ = true;
        if (next_.position == file_->size()) return std::nullopt;
        ReadFault excess{{"there are bytes after the last block"}, std::nullopt, next_.position};
        return BlockPipeline::Task{next_, std::move(excess)};
    }
    BlockPipeline::Task task{.place = next_, .digest = true};
    const auto header = readBlockHeader(*file_, next_.position);
    const bool expected = header && header->sequence == next_.sequence;
    if (!expected) {
        ended_ = true;
        task.fault = blockFault(next_, header ? wrongNumber(header->sequence) : header.error());
        return task;
    }
    // The sum cannot overflow: the header was read from the file, and a sealed length has 24 bits.
    pastLast_ = header->flags & blockLast;
    next_ = {next_.sequence + 1, next_.position + blockHeaderSize + header->sealedLength};
    return task;
}

}  // namespace tarnwick::qvx
