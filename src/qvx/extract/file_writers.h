// Writes small files with several threads. To create a file takes the kernel longer than to read it from an archive.
// But the kernel creates only one file at a time in a directory, so threads help only with different directories.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "qvx/extract/temporary_file.h"

namespace tarnwick::qvx {

// A regular file whose content is verified.
struct SmallFile {
    std::string name;
    EntryHead head;
    EntryTail tail;
    std::vector<std::uint8_t> content;
};

// Threads write the files, those of one directory in order; the caller writes too when they do not keep up. Memory: 8
// MiB for contents and attributes, and at most as much again as the largest attributes of a file in each batch. Changes
// the working directory of the caller.
class FileWriters {
public:
    static constexpr std::size_t maxFileSize = 65536;  // content of a file

    explicit FileWriters(ExtractionRun& run) : run_(run), temporary_(run) {}
    FileWriters(const FileWriters&) = delete;
    FileWriters& operator=(const FileWriters&) = delete;
    ~FileWriters();  // files that were put but not settled may be lost

    // `holder` keeps `directory` open.
    void put(int directory, const std::shared_ptr<const void>& holder, SmallFile file);

    // Waits until every file that was put is on disk or was reported.
    void settle();

private:
    struct Batch {  // of one directory
        int directory = -1;
        std::shared_ptr<const void> holder;
        std::vector<SmallFile> files;
        std::size_t bytes = 0;
        bool begun = false;
    };

    static constexpr std::size_t maxBatchFiles = 128;  // of a batch
    static constexpr std::size_t maxBatchBytes = 1048576;
    static constexpr std::size_t maxBatches = 7;

    void handOver();
    void work();
    bool writeNext(std::unique_lock<std::mutex>& lock, TemporaryFile& temporary);
    void write(const SmallFile& file, int directory, TemporaryFile& temporary);

    ExtractionRun& run_;
    Batch batch_;              // not given to the threads yet
    TemporaryFile temporary_;  // used by the caller

    std::mutex mutex_;
    std::condition_variable changed_;
    std::list<Batch> batches_;
    bool closed_ = false;
    std::vector<std::jthread> threads_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
