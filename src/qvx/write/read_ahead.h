// Reads the entries of a path list ahead of who stores them, with some threads: a small file costs the disk more time
// to find than to read, and many can be asked for at once. Big files are only opened, and their beginning is asked for.
//
// Memory: as many batches as threads, 8 at least, of `batchBytes` for contents; and as many open files as
// entries in all batches, at most.
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
    static constexpr std::size_t batchEntries = 32;
    static constexpr std::size_t batchBytes = 262144;
    static constexpr std::size_t smallSize = 65536;  // the largest file to be read here

    // Starts exactly so many threads. Throws std::bad_alloc or std::system_error.
    ReadAhead(const PathList& list, unsigned threads);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The next entry in the order of the list, the caller's until the next call; null at the end. Throws
    // std::bad_alloc.
    DiskEntry* next();

private:
    struct Batch {
        std::array<DiskEntry, batchEntries> entries;
        std::size_t count = 0;
        std::vector<std::uint8_t> contents;
        bool ready = false;
    };

    void work();
    void readBatches();
    Batch* begin(std::unique_lock<std::mutex>& lock);
    void stop(bool failed);

    // Batch number n is in batches_[n % batches_.size()].
    std::vector<Batch> batches_;

    std::mutex mutex_;
    std::condition_variable free_;
    std::condition_variable ready_;
    PathList::Walk walk_;
    std::uint64_t begun_ = 0;     // batches taken from the list
    std::uint64_t finished_ = 0;  // batches given out to the last entry
    bool listEnded_ = false;
    bool closing_ = false;
    bool failed_ = false;  // a thread ran out of memory

    std::size_t given_ = 0;  // entries of the batch at hand
    bool holding_ = false;   // a batch is at hand

    std::vector<std::jthread> workers_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
