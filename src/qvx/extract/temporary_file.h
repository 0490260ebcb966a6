// A file or link with a temporary name in its final directory, written through libarchive, which sets owner, mode and
// times and keeps holes as holes.
#pragma once

#include <memory>
#include <string>

#include "base/handle.h"
#include "qvx/extract/extraction_run.h"
#include "qvx/format/entry_codec.h"

struct archive;
struct archive_entry;

namespace tarnwick::qvx {

// Bytes of memory that attributes and access control lists take.
std::size_t extrasSize(const EntryTail& tail);

// Sets owner (as root only), mode and times of the existing directory `name` in the working directory. Reports what
// could not be set.
void restoreDirectory(ExtractionRun& run, const std::string& name, const EntryHead& head, const EntryTail& tail);

class TemporaryFile {
public:
    explicit TemporaryFile(ExtractionRun& run) : run_(run) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() { drop(); }

    // Creates the file, or with `linkTarget` the symbolic link, in the working directory, which must be `directory`
    // until the file is renamed or dropped. False on failure, with what(); likewise the functions below.
    bool create(int directory, const EntryHead& head, const std::string* linkTarget);
    bool data(Bytes bytes);
    bool hole(std::uint64_t length);

    // finish() completes content and metadata; rename() gives the file its final name and replaces what has that name,
    // except a directory that is not empty. With `replace` false, an existing name is a failure with errno EEXIST.
    bool finish(const EntryTail& tail);
    bool rename(const std::string& name, bool replace);

    // Creates a second name for the open file `source` instead of a new file.
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

    ExtractionRun& run_;
    std::unique_ptr<archive, Free> disk_;
    std::string path_;  // of the entry, for messages
    std::string name_;  // empty: none
    std::string what_;
    FileDescriptor file_;  // O_PATH, of what was created; none when that could not be determined
    EntryType type_ = EntryType::file;
    int directory_ = -1;
    std::uint64_t offset_ = 0;
    std::uint64_t written_ = 0;
    bool open_ = false;    // the disk writer has not closed it
    bool linked_ = false;  // a second name of an existing file
};

}  // namespace tarnwick::qvx
