#include "qvx/write/read_ahead.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

#include "base/open_files.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxRequested = 8 << 20;       // bytes of large files
constexpr std::size_t linkSpace = maxPathLength + 1;  // bytes reserved for each entry, which may be a link

// So many that all batches together have at most half of the files open that this process may open.
std::size_t entriesOfEach(std::size_t batches) {
    return std::clamp<std::size_t>(maxOpenFiles() / 2 / batches, 1, ReadAhead::batchEntries);
}

void readBatch(std::span<DiskEntry> entries, MutableBytes buffer, DiskEntryReader& reader) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
        // A small file must not fill the space that a later link of the batch needs.
        const std::size_t reserved = (entries.size() - 1 - i) * linkSpace;
        reader.begin(entries[i], buffer.first(std::min(ReadAhead::smallSize, buffer.size() - reserved)));
        buffer = buffer.subspan(entries[i].content.size() + entries[i].awaited.size());
    }
    // Only when all files of the batch are requested: the disk then works on them together.
    for (auto& entry : entries) reader.finish(entry);
}

}  // namespace

ReadAhead::ReadAhead(const PathList& list, unsigned threads)
    : batches_(std::max<std::size_t>(threads, minDepth)), maxEntries_(entriesOfEach(batches_.size())), cursor_(list) {
    for (auto& batch : batches_) batch.contents.resize(batchBytes);
    try {
        while (workers_.size() < threads) workers_.emplace_back([this] { work(); });
    } catch (...) {
        stop(true);  // or the threads that did start would wait forever
        throw;
    }
}

ReadAhead::~ReadAhead() { stop(false); }

void ReadAhead::stop(bool failed) {
    const std::lock_guard lock(mutex_);
    closing_ = true;
    failed_ = failed_ || failed;
    free_.notify_all();
    ready_.notify_all();
}

DiskEntry* ReadAhead::next() {
    // No lock inside of a batch: as long as it is ready, it belongs to the caller.
    Batch* batch = &batches_[finished_ % batches_.size()];
    if (inBatch_ && ++index_ < batch->count) {
        requested_ -= requestSize(batch->entries[index_ - 1]);
        requestLarge(*batch);
        return &batch->entries[index_];
    }
    std::unique_lock lock(mutex_);
    if (inBatch_) {
        batch->ready = false;
        ++finished_;
        free_.notify_one();
        batch = &batches_[finished_ % batches_.size()];
    }
    ready_.wait(lock, [&] { return batch->ready || failed_ || (listEnded_ && finished_ == begun_); });
    // A thread sets failed_ only when memory runs out.
    if (failed_) throw std::bad_alloc();
    inBatch_ = batch->ready;
    index_ = requestedTo_ = requested_ = 0;
    lock.unlock();
    if (!inBatch_) return nullptr;
    requestLarge(*batch);
    return &batch->entries[0];
}

void ReadAhead::requestLarge(const Batch& batch) {
    for (; requestedTo_ < batch.count && requested_ < maxRequested; ++requestedTo_) {
        requestContent(batch.entries[requestedTo_]);
        requested_ += requestSize(batch.entries[requestedTo_]);
    }
}

void ReadAhead::work() {
    try {
        readBatches();
    } catch (const std::bad_alloc&) {
        stop(true);
    }
}

void ReadAhead::readBatches() {
    DiskEntryReader reader;
    std::unique_lock lock(mutex_);
    while (Batch* batch = begin(lock)) {
        lock.unlock();
        readBatch(std::span(batch->entries).first(batch->count), batch->contents, reader);
        lock.lock();
        batch->ready = true;
        ready_.notify_one();
    }
}

// Waits for a free batch and fills it with the next entries of the list. Null when the list has ended or the object is
// being destroyed.
ReadAhead::Batch* ReadAhead::begin(std::unique_lock<std::mutex>& lock) {
    free_.wait(lock, [&] { return closing_ || listEnded_ || begun_ - finished_ < batches_.size(); });
    if (closing_ || listEnded_) return nullptr;
    Batch& batch = batches_[begun_ % batches_.size()];
    batch.count = 0;
    while (batch.count < maxEntries_) {
        const PathList::Entry* listed = cursor_.next();
        listEnded_ = !listed;
        if (listEnded_) break;
        DiskEntry& entry = batch.entries[batch.count++];
        entry = {};
        entry.listed = *listed;
    }
    if (batch.count > 0) ++begun_;
    if (listEnded_) {
        free_.notify_all();
        ready_.notify_all();
    }
    return batch.count > 0 ? &batch : nullptr;
}

}  // namespace tarnwick::qvx
