// Reads the entries of a path list before the encoder needs them. For a small file the disk takes longer to find it
// than to read it, and it can serve many requests at a time, so several threads read. Large files are only opened and
// their beginning is requested. Shortly before the encoder reads them, up to 4 MiB of each are requested, about 8 MiB
// in all.
//
// Memory: as many batches as threads, but at least 8, each with `batchBytes` for contents. Open files: at most one for
// each entry of all batches, and at most half of the limit of the process.
#pragma once

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "qvx/write/disk_entry.h"

namespace tarnwick::qvx {

class ReadAhead {
public:
    static constexpr std::size_t minDepth = 8;
    static constexpr std::size_t batchEntries = 64;
    static constexpr std::size_t batchBytes = 524288;
    static constexpr std::size_t smallSize = 65536;  // bytes; larger files are read by the encoder

    // Starts exactly `threads` threads. Throws std::bad_alloc or std::system_error.
    ReadAhead(const PathList& list, unsigned threads);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The next entry in the order of the list, valid until the next call; null at the end. Throws std::bad_alloc.
    DiskEntry* next();

private:
    struct Batch {
        std::array<DiskEntry, batchEntries> entries;
        std::size_t count = 0;
        std::vector<std::uint8_t> contents;
        bool ready = false;
    };

    void requestLarge(const Batch& batch);
    void work();
    void readBatches();
    Batch* begin(std::unique_lock<std::mutex>& lock);
    void stop(bool failed);

    // Batch number n is in batches_[n % batches_.size()].
    std::vector<Batch> batches_;
    const std::size_t maxEntries_;  // of a batch

    std::mutex mutex_;
    std::condition_variable free_;
    std::condition_variable ready_;
    PathList::Cursor cursor_;
    std::uint64_t begun_ = 0;     // batches taken from the list
    std::uint64_t finished_ = 0;  // batches of which the caller has read every entry
    bool listEnded_ = false;
    bool closing_ = false;
    bool failed_ = false;  // a thread ran out of memory

    std::size_t index_ = 0;        // of the caller's entry in its batch
    bool inBatch_ = false;         // the caller is using an entry of a batch
    std::size_t requestedTo_ = 0;  // index of the first entry in the batch that is not requested yet
    std::uint64_t requested_ = 0;  // bytes, of the entries from index_ to that one

    std::vector<std::jthread> workers_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
