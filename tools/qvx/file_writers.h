// Small files on their way to the disk. Making a file takes the kernel longer than reading it from an archive; but it
// makes one at a time in a directory, so that threads are of use for different directories only.
#pragma once

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "temporary_file.h"

namespace tarnwick::qvx {

// A regular file whose content has proved right.
struct SmallFile {
    std::string name;
    EntryHead head;
    EntryTail tail;
    std::vector<std::uint8_t> content;
};

// Threads write what is put, those of one directory in order, and so does the caller when they do not keep up. Memory:
// 8 MiB for contents and attributes, and at most as much again as the largest attributes of a file in each batch.
// Changes the working directory of the caller.
class FileWriters {
public:
    static constexpr std::size_t largest = 65536;  // content of a file

    FileWriters() = default;
    FileWriters(const FileWriters&) = delete;
    FileWriters& operator=(const FileWriters&) = delete;
    ~FileWriters();  // what was put and not settled may be lost

    // `holder` keeps `directory` open.
    void put(int directory, const std::shared_ptr<const void>& holder, SmallFile file);

    // Comes back when everything that was put is on disk, or was reported.
    void settle();

    // Whether a file could not be written.
    [[nodiscard]] bool failed() const { return failed_; }

private:
    struct Batch {  // of one directory
        int directory = -1;
        std::shared_ptr<const void> holder;
        std::vector<SmallFile> files;
        std::size_t bytes = 0;
        bool begun = false;
    };

    static constexpr std::size_t mostFiles = 128;  // of a batch
    static constexpr std::size_t mostBytes = 1048576;
    static constexpr std::size_t mostBatches = 7;

    void handOver();
    void work();
    bool writeNext(std::unique_lock<std::mutex>& lock, TemporaryFile& temporary);
    void write(const SmallFile& file, int directory, TemporaryFile& temporary);

    Batch batch_;              // not yet handed over
    TemporaryFile temporary_;  // of the caller
    std::atomic<bool> failed_ = false;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::list<Batch> batches_;
    bool closed_ = false;
    std::vector<std::jthread> threads_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
