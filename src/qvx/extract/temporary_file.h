// A file or symbolic link with a temporary name in its final directory.
#pragma once

#include <string>

#include "qvx/extract/restored_metadata.h"

namespace tarnwick::qvx {

// create() or link() makes the file, finish() completes it, rename() gives it its name. The destructor removes a file
// that was not renamed. The directory must stay open, and be the working directory, until then. The subject of an error
// is the path of the entry.
class TemporaryFile {
public:
    explicit TemporaryFile(ExtractionRun& run) : run_(run) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() { discard(); }

    // Makes an empty file, or with `linkTarget` a symbolic link, and makes `directory` the working directory.
    Status create(int directory, const EntryHead& head, const std::string* linkTarget = nullptr);

    // Makes a second name for the open file `source`. It is complete. There must be no file yet.
    Status link(int directory, int source);

    Status append(Bytes bytes);
    void appendHole(std::uint64_t length) { size_ += length; }

    // Completes content and metadata; warns of metadata that could not be set.
    Status finish(const EntryTail& tail);

    // Replaces what has that name, except a directory that is not empty.
    Status rename(const std::string& name);

    // An existing file of that name is an error with the code EEXIST.
    Status renameIfFree(const std::string& name);

    void discard();
    [[nodiscard]] bool exists() const { return !name_.empty(); }

private:
    Status openCreated();
    Status renamed(int result);
    [[nodiscard]] Error writeError() const;

    ExtractionRun& run_;
    DiskWriter writer_;
    EntryHead head_;
    std::string name_;     // empty: none
    FileDescriptor file_;  // O_PATH, of what was created; none when another user may have made it
    int directory_ = -1;
    std::uint64_t size_ = 0;
    std::uint64_t written_ = 0;  // end of the last byte that is not in a hole
    bool open_ = false;          // the disk writer has not closed it
    bool linked_ = false;        // made by link()
};

}  // namespace tarnwick::qvx
