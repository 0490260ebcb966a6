// A file without a name, or a file or symbolic link with a temporary name in its final directory.
#pragma once

#include <string>

#include "base/handle.h"
#include "qvx/bytes.h"
#include "qvx/extract/file_identity.h"
#include "qvx/extract/restored_metadata.h"

namespace tarnwick::qvx {

// create(), createLink() or link() makes the file, finish() completes it, rename() gives it its name. The destructor
// removes a file that was not renamed. The directory must stay open until then. The subject of an error is the path of
// the entry.
//
// A regular file has no name until then, where the file system can do that: nobody else can open it, nothing is left of
// it when the program is killed, and to name it costs less than to rename it.
class TemporaryFile {
public:
    explicit TemporaryFile(ExtractionRun& run) : run_(run) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() { discard(); }

    // Makes an empty file.
    Status create(int directory, const EntryHead& head);

    // Makes a symbolic link.
    Status createLink(int directory, const EntryHead& head, const std::string& target);

    // Makes a second name for the open file `source`. It is complete.
    Status link(int directory, const EntryHead& head, int source);

    Status append(Bytes bytes);
    void appendHole(std::uint64_t length) { size_ += length; }

    // Completes content and metadata, but not the inode flags; warns of metadata that could not be set.
    Status finish(const EntryTail& tail);

    // The same for a part of a file, which does not become a set-id program, and gets a temporary name.
    Status finishPart();

    // Replaces what has that name, except a directory that is not empty.
    Status rename(const std::string& name);

    // Leaves the file where it is, with its temporary name.
    void release();

    void discard();
    [[nodiscard]] bool exists() const { return file_ || !name_.empty(); }
    [[nodiscard]] const std::string& name() const { return name_; }

    // Of the last regular file that was finished.
    [[nodiscard]] const FileIdentity& identity() const { return identity_; }

private:
    Status begin(int directory, const EntryHead& head);
    Status chargeData(std::uint64_t bytes);
    bool createUnnamed();
    Status createNamed();
    Status openLink();
    Status finishContent();
    Status closeContent();
    [[nodiscard]] bool isUnnamed() const { return file_ && name_.empty(); }
    int linkAs(const std::string& name);  // the errno value of a failure, or 0
    Status giveTemporaryName();
    Status renameTo(const std::string& name);
    [[nodiscard]] Error fileError(int code) const { return systemError(code, head_.path); }

    ExtractionRun& run_;
    EntryHead head_;
    std::string name_;     // temporary; empty: none
    FileDescriptor file_;  // of what was created; none when another user may have made it, or it is complete
    int directory_ = -1;
    std::uint64_t size_ = 0;
    std::uint64_t data_ = 0;     // bytes that are not in a hole
    std::uint64_t written_ = 0;  // end of the last byte that is not in a hole
    bool linked_ = false;        // made by link()
    FileIdentity identity_;
};

}  // namespace tarnwick::qvx
