#include "qvx/read/block_reader.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

#include "qvx/format/content_digest.h"
#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

namespace {

// These bound the memory, the first on a machine with many cores, the others for blocks of tiny records.
constexpr unsigned maxDecoders = 8;
constexpr std::size_t maxDigests = 4096;  // in one block; the consumer computes those of the other entries
constexpr std::size_t maxParts = 4096;    // DATA records of one entry
constexpr std::uint64_t maxSealedBlock = blockHeaderSize + blockSize + tagSize;

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
    bool whole = false;  // the current entry began in this block, announces a digest and has no hole so far
    std::size_t begin = 0;
    std::size_t offset = 0;
    RecordCursor cursor(plain);
    while (const auto record = digests.size() < maxDigests ? cursor.next() : std::nullopt) {
        if (record->type == RecordType::entry) {
            whole = announcesDigest(record->payload);
            begin = offset;
            content.clear();
        } else if (record->type == RecordType::data && content.size() < maxParts) {
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
    if (const auto header = decodeBlockHeader(bytes)) return *header;
    return Error{"the block header is damaged"};
}

OpenedBlock unopenedBlock(const ArchiveFile& file, const BlockPlace& place) {
    OpenedBlock block{place, {}, {}};
    const auto header = readBlockHeader(file, place.position);
    if (!header) {
        block.fault = blockFault(place, header.error());
    } else if (header->sequence != place.sequence) {
        block.fault = blockFault(place, wrongNumber(header->sequence));
    } else {
        block.header = *header;
    }
    return block;
}

void BlockOpener::open(OpenedBlock& block, const LeaderSource& leader) {
    if (block.fault) return;
    if (const Status decoded = decode(block, leader); !decoded) block.fault = blockFault(block.place, decoded.error());
}

Status BlockOpener::decode(OpenedBlock& block, const LeaderSource& leader) {
    // This opener may have to open the leader too. That uses `sealed_`, so it must happen before the block is read into
    // it.
    BlockPointer dictionary;
    if (block.header.needsLeader()) {
        dictionary = leader();
        if (!dictionary || dictionary->fault)
            return Error{"its leader is damaged or missing, or is not one of the last 16"};
    }
    // At most one block and its tag: decodeBlockHeader() refuses a longer one.
    sealed_.resize(block.header.sealedLength);
    if (auto read = file_.read(block.place.position + blockHeaderSize, sealed_); !read) return read;
    const auto fault = decoder_.decode(block.header, sealed_, dictionary ? bytesOf(dictionary) : Bytes{}, block.plain);
    if (fault == BlockFault::none) return {};
    return Error{describe(fault)};
}

Bytes BlockOpener::bytesOf(const BlockPointer& leader) {
    if (!copiesLeaders_) return leader->plain;
    if (last_.lock() != leader) {
        last_ = leader;
        copy_ = {};
        return leader->plain;
    }
    if (copy_.empty()) copy_ = decoder_.copyLeader(leader->plain);
    return copy_;
}

void BlockMap::add(const BlockPlace& place) {
    if (place.sequence < positions_.size() && !misplaced_) misplaced_ = place;
    if (place.sequence >= positions_.size()) positions_.resize(place.sequence + 1, missing);
    std::uint64_t& position = positions_[place.sequence];
    if (position == missing) position = place.position;
}

std::optional<BlockPlace> BlockMap::find(std::uint64_t sequence) const {
    if (sequence >= positions_.size() || positions_[sequence] == missing) return std::nullopt;
    return BlockPlace{sequence, positions_[sequence]};
}

void willReadBlocks(const ArchiveFile& file, const BlockMap& map, std::uint64_t first, std::uint64_t end) {
    const auto begin = map.find(first);
    if (!begin) return;
    // The map may end with these blocks.
    const auto next = map.find(end);
    file.willRead(begin->position, next ? next->position : begin->position + (end - first) * maxSealedBlock);
}

BlockPointer RandomBlocks::get(std::uint64_t sequence) {
    if (auto kept = find(sequence)) return kept;
    auto block = open(sequence);
    if (!block->header.leads()) return other_ = block;
    leaders_.push_back(block);
    if (leaders_.size() > keptLeaders) leaders_.pop_front();
    return block;
}

BlockPointer RandomBlocks::find(std::uint64_t sequence) const {
    if (other_ && other_->place.sequence == sequence) return other_;
    const auto isIt = [&](const BlockPointer& leader) { return leader->place.sequence == sequence; };
    const auto found = std::ranges::find_if(leaders_, isIt);
    return found == leaders_.end() ? nullptr : *found;
}

BlockPointer RandomBlocks::open(std::uint64_t sequence) {
    const auto block = std::make_shared<OpenedBlock>(unopened(sequence));
    if (!block->fault) ++opened_;
    opener_.open(*block, [&] { return getLeader(block->header.leader); });
    return block;
}

OpenedBlock RandomBlocks::unopened(std::uint64_t sequence) const {
    willReadBlocks(file_, map_, sequence, sequence + 1);
    if (const auto place = map_.find(sequence)) return unopenedBlock(file_, *place);
    return {{sequence, 0}, {}, {}, ReadFault{{"there is no such block"}, sequence}};
}

// Looks at the header before the block is opened: one that is no leader could name another block, and so on.
BlockPointer RandomBlocks::getLeader(std::uint64_t sequence) {
    const auto kept = find(sequence);
    const bool leads = kept ? kept->header.leads() : unopened(sequence).header.leads();
    return leads ? get(sequence) : nullptr;
}

BlockPipeline::BlockPipeline(const ArchiveFile& file, const MessageKeys& keys, Supplier supplier, const BlockMap* map)
    : file_(file),
      keys_(keys),
      map_(map),
      supplier_(std::move(supplier)),
      maxKept_(file.isFile() ? keptLeaders : maxLeaders) {
    leaders_.reserve(maxLeaders + 1);
    lastNamed_.reserve(maxLeaders + 1);
    // hardware_concurrency() is 0 when the number of cores is not known.
    const unsigned workers = std::clamp(std::thread::hardware_concurrency(), 1U, maxDecoders);
    limit_ = workers + 8UL;
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
    SlotPointer slot;
    try {
        BlockOpener opener(file_, keys_, true);
        while ((slot = claim())) {
            slot->block.plain = spare_->take();
            opener.open(slot->block, [&] { return waitForLeader(slot->leader); });
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

// Slots are queued in the order in which workers claim them, so a leader is always in progress before a block needs it.
BlockPipeline::SlotPointer BlockPipeline::claim() {
    // The queue has the order of the supplier. It has a separate lock, because the supplier may wait for a server.
    const std::lock_guard turn(supplying_);
    if (!waitForSpace()) return nullptr;
    auto slot = nextSlot();
    const std::lock_guard lock(mutex_);
    if (closed_ || exhausted_) return nullptr;
    if (slot) {
        queue_.push_back(slot);
        if (slot->block.header.leads()) keepLeader(slot);  // only now, when this worker is certain to open it
    } else {
        exhausted_ = true;
        changed_.notify_all();
    }
    return slot;
}

// False when no more blocks are wanted.
bool BlockPipeline::waitForSpace() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || exhausted_ || queue_.size() < limit_; });
    return !closed_ && !exhausted_;
}

BlockPipeline::SlotPointer BlockPipeline::nextSlot() {
    if (postponed_) {
        postponed_->leader = findLeader({postponed_->block.header.leader});
        return std::exchange(postponed_, nullptr);
    }
    auto task = supplier_();
    if (!task) return nullptr;
    auto slot = makeSlot({.block = std::move(task->block), .digest = task->digest});
    const auto place = placeOfLeader(slot->block.header);
    if (!place) return slot;
    slot->leader = findLeader(*place);
    if (slot->leader) return slot;
    // It was in memory. Without this, a small file of many small blocks could demand a large leader for each of them.
    if (std::ranges::find(lastNamed_, place->sequence, &BlockPlace::sequence) != lastNamed_.end())
        maxKept_ = maxLeaders;
    auto leader = fetchLeader(*place);
    if (!leader) return slot;
    postponed_ = std::move(slot);
    return leader;
}

BlockPipeline::SlotPointer BlockPipeline::makeSlot(Slot slot) const {
    const auto recycle = [spare = spare_](Slot* used) {
        spare->give(std::move(used->block.plain));
        delete used;
    };
    return {new Slot(std::move(slot)), recycle};
}

// Null when it is not in memory.
BlockPipeline::SlotPointer BlockPipeline::findLeader(const BlockPlace& place) const {
    const auto isIt = [&](const SlotPointer& leader) { return leader->block.place.sequence == place.sequence; };
    const auto found = std::ranges::find_if(leaders_, isIt);
    return found == leaders_.end() ? nullptr : *found;
}

// None when the block needs none, and when it names one that it must not name.
std::optional<BlockPlace> BlockPipeline::placeOfLeader(const BlockHeader& header) const {
    if (!header.needsLeader()) return std::nullopt;
    if (map_) return map_->find(header.leader);
    const auto found = std::ranges::find(lastNamed_, header.leader, &BlockPlace::sequence);
    return found == lastNamed_.end() ? std::nullopt : std::optional(*found);
}

// Null when there is no leader at that place.
BlockPipeline::SlotPointer BlockPipeline::fetchLeader(const BlockPlace& place) const {
    if (map_) willReadBlocks(file_, *map_, place.sequence, place.sequence + 1);
    auto slot = makeSlot({.block = unopenedBlock(file_, place), .requested = false});
    return slot->block.header.leads() ? slot : nullptr;
}

// The memory is reserved: the slot is in the queue already, and the consumer would wait for it forever.
void BlockPipeline::keepLeader(SlotPointer leader) noexcept {
    if (leader->requested) lastNamed_.push_back(leader->block.place);
    if (lastNamed_.size() > maxLeaders) lastNamed_.erase(lastNamed_.begin());
    leaders_.push_back(std::move(leader));
    if (leaders_.size() > maxKept_) leaders_.erase(leaders_.begin());
}

// A block that is done does not change any more, so it may be read without the lock.
// The wait ends: the leader was claimed before, and no leader waits for another block (decodeBlockHeader).
BlockPointer BlockPipeline::waitForLeader(const SlotPointer& leader) {
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
    if (pastLast_) return end(file_->checkBlocksEnd(next_.position));
    if (next_.position == file_->blocksEnd()) return end(Error{"the last block is missing"});
    file_->willReadFrom(next_.position);
    BlockPipeline::Task task{unopenedBlock(*file_, next_), true};
    ended_ = task.block.fault.has_value();
    const auto& header = task.block.header;
    // The sum cannot overflow: the header was read from the file, and a sealed length has 24 bits.
    pastLast_ = header.last();
    next_ = {next_.sequence + 1, next_.position + blockHeaderSize + header.sealedLength};
    return task;
}

std::optional<BlockPipeline::Task> AllBlocks::end(const Status& checked) {
    ended_ = true;
    if (checked) return std::nullopt;
    return BlockPipeline::Task{{next_, {}, {}, ReadFault{checked.error(), std::nullopt, next_.position}}};
}

std::optional<BlockPipeline::Task> MappedBlocks::operator()() {
    while (next_ < map_->end()) {
        const auto place = map_->find(next_++);
        if (!place) continue;
        file_->willReadFrom(place->position);
        return BlockPipeline::Task{unopenedBlock(*file_, *place)};
    }
    return std::nullopt;
}

}  // namespace tarnwick::qvx
