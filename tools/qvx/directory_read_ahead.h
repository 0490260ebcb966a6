// Reads the directories of a tree before the caller needs them, with several threads: the disk can serve many requests
// at a time, and while the caller uses one directory, the other cores read the next ones.
//
// Memory: the files of the directories that were read ahead, at most `maxFiles` for each thread and once more, and the
// paths of at most `maxNeeded` directories.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/error.h"

namespace tarnwick::qvx {

// A file in a directory.
struct FoundFile {
    std::string name;
    int error = 0;  // errno value: the members after it mean nothing
    mode_t mode = 0;
    dev_t device = 0;
    ino_t inode = 0;
    std::uint64_t size = 0;  // bytes
};

// In order of names.
using FoundFiles = std::vector<FoundFile>;

std::string pathBelow(const std::string& directory, const std::string& name);

class DirectoryReadAhead {
public:
    static constexpr std::size_t maxFiles = 8192;
    static constexpr std::size_t maxNeeded = 8192;

    // Starts exactly `threads` threads. Throws std::bad_alloc or std::system_error.
    explicit DirectoryReadAhead(unsigned threads);
    ~DirectoryReadAhead();
    DirectoryReadAhead(const DirectoryReadAhead&) = delete;
    DirectoryReadAhead& operator=(const DirectoryReadAhead&) = delete;

    // The files in the directory at `path`, which is absolute and normal. Reads it itself if no
    // thread has begun to. For one caller at a time. Throws std::bad_alloc.
    Result<FoundFiles> read(const std::string& path);

private:
    // A directory comes before those in it, and these come before its neighbours.
    struct DepthFirst {
        bool operator()(std::string_view a, std::string_view b) const;
    };

    // A directory that a thread reads or has read.
    struct Begun {
        bool finished = false;
        std::optional<Result<FoundFiles>> files = std::nullopt;  // none if they are too many
    };

    void stop(bool failed);
    void work();
    void readNeeded();
    std::optional<Result<FoundFiles>> finish(const std::string& path);
    void expectBelow(const std::string& path, const Result<FoundFiles>& files);
    [[nodiscard]] bool mayBegin() const { return !needed_.empty() && filesAhead_ < maxFiles; }

    std::mutex mutex_;
    std::condition_variable mayBegin_;
    std::condition_variable finished_;
    std::set<std::string, DepthFirst> needed_;  // and not begun
    std::map<std::string, Begun> begun_;        // and not returned
    std::size_t filesAhead_ = 0;                // in begun_, with the directories themselves
    bool closing_ = false;
    bool failed_ = false;  // a thread ran out of memory

    std::vector<std::jthread> threads_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
