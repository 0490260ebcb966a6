// Writes small files with several threads. To create a file takes the kernel longer than to read it from an archive.
// But the kernel creates only one file at a time in a directory, so threads help only with different directories.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "qvx/extract/extracted_files.h"

namespace tarnwick::qvx {

// A regular file whose content is verified.
struct SmallFile {
    int directory = -1;
    std::shared_ptr<const void> owner;  // keeps the directory open
    std::string name;                   // in its directory
    EntryHead head;
    EntryTail tail;
    std::vector<std::uint8_t> content;
    std::optional<FileIdentity> identity = std::nullopt;  // once it is on disk
};

struct WrittenFile {
    std::uint64_t number = 0;  // of the entry
    ExtractedFile file;
};

// Files are written in any order. The caller writes too when the threads do not keep up. At most 256 directories are
// open for files that wait. Files that cannot be written are reported; interruption skips the rest. Memory: 8 MiB for
// contents and attributes, and at most as much again as the largest attributes of a file in each batch.
class FileWriters {
public:
    explicit FileWriters(ExtractionRun& run) : run_(run), temporary_(run) {}
    FileWriters(const FileWriters&) = delete;
    FileWriters& operator=(const FileWriters&) = delete;
    ~FileWriters();  // does not flush: files may be lost

    void add(SmallFile file);

    // Waits until every added file is on disk or was reported. Returns those that are on disk since the last call.
    std::vector<WrittenFile> flush();

private:
    struct Batch {
        std::vector<SmallFile> files;  // those of one directory after each other
        std::size_t directories = 0;
        std::size_t bytes = 0;
        bool started = false;
    };
    using Lock = std::unique_lock<std::mutex>;

    [[nodiscard]] bool isComplete(const SmallFile& next) const;
    void submitBatch();
    void collectDone();
    void startThread();
    void runThread();
    template <typename Condition>
    void writeUntil(Condition condition, Lock& lock, TemporaryFile& temporary);
    bool writeNextBatch(Lock& lock, TemporaryFile& temporary);
    std::list<Batch>::iterator nextBatch();
    void writeFile(SmallFile& file, TemporaryFile& temporary);

    ExtractionRun& run_;
    Batch batch_;  // of the files added last; not given to the threads yet
    std::vector<WrittenFile> written_;
    TemporaryFile temporary_;  // for the caller

    std::mutex mutex_;
    std::condition_variable changed_;  // batches_ or closed_
    std::list<Batch> batches_;         // in the order of submission; those in progress too
    std::list<Batch> done_;            // to be freed by the caller
    bool closed_ = false;
    std::vector<std::jthread> threads_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
