// A file or link under a name of its own in the directory where it will stand, written through libarchive, so that
// owner, mode and times are set as there, and holes stay holes.
#pragma once

#include <memory>
#include <string>

#include "base/handle.h"
#include "qvx/format/entry_codec.h"

struct archive;
struct archive_entry;

namespace tarnwick::qvx {

// Bytes of memory for attributes and access control lists.
std::size_t extrasSize(const EntryTail& tail);

// Sets owner (for root), mode and times of what stands under `name` in the working directory: a directory that exists.
// What could not be set is reported.
void restoreDirectory(const std::string& name, const EntryHead& head, const EntryTail& tail);

class TemporaryFile {
public:
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() { drop(); }

    // Makes the file, or with `linkTarget` the symbolic link, in the working directory, which must be `directory` until
    // the file is renamed or dropped. False with what() on failure, likewise below.
    bool create(int directory, const EntryHead& head, const std::string* linkTarget);
    bool data(Bytes bytes);
    bool hole(std::uint64_t length);

    // Completes content and metadata, and gives it its name; replaces what stands there, other than a directory that
    // is not empty. With `replace` false, a name that is taken is a failure with errno EEXIST.
    bool finish(const EntryTail& tail);
    bool rename(const std::string& name, bool replace);

    // Makes another name for the open file `source` instead of a file of its own.
    bool link(int directory, int source);

    void drop();
    [[nodiscard]] bool exists() const { return !name_.empty(); }
    [[nodiscard]] bool isLink() const { return exists() && !open_; }  // made by link(), or finished
    [[nodiscard]] const std::string& what() const { return what_; }

private:
    struct Free {
        void operator()(archive* disk) const noexcept;
    };

    bool hold();
    bool refuse();
    bool refuseWithErrno();

    std::unique_ptr<archive, Free> disk_;
    std::string path_;  // of the entry, for messages
    std::string name_;  // empty: none
    std::string what_;
    FileDescriptor file_;  // O_PATH, of what was made; none where that could not be told
    EntryType type_ = EntryType::file;
    int directory_ = -1;
    std::uint64_t offset_ = 0;
    std::uint64_t written_ = 0;
    bool open_ = false;    // the disk writer still has it
    bool linked_ = false;  // another name of a file that is there
};

}  // namespace tarnwick::qvx
