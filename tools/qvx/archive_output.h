// The file that a new archive is written to.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "base/error.h"
#include "base/handle.h"
#include "base/pending_file.h"
#include "qvx/archive_writer.h"

namespace tarnwick::qvx {

// What is at the path stays as it is until the archive is complete; then the archive replaces it at once. Only a
// regular file that the user may write is replaced. The subject of an error is the path.
//
// The path "-" is standard output, which gets the archive as it is made. Until its footer is written, a reader finds
// that it is cut.
class ArchiveOutput {
public:
    // Checks that there can be an archive at `path`; a terminal is refused. Writes nothing.
    static Result<ArchiveOutput> open(const std::string& path);

    // Whether the path leads to this file now.
    [[nodiscard]] bool isAt(dev_t device, ino_t inode) const;

    // Makes the file to write to. If it needs a hidden name, an interruption (interruption.h) is recorded from here
    // on, and the sink fails after it.
    Status create();
    [[nodiscard]] ArchiveWriter::Sink sink() const;

    // Gives the file its name. On success everything is on the disk.
    Status place();

private:
    ArchiveOutput(std::string path, std::string name, FileDescriptor folder)
        : path_(std::move(path)), name_(std::move(name)), folder_(std::move(folder)) {}
    static Result<ArchiveOutput> openStandard();
    Status checkExisting();
    Status syncFolder() const;
    [[nodiscard]] Error failure(int code) const { return systemError(code, path_); }

    std::string path_;
    std::string name_;       // the last component
    FileDescriptor folder_;  // none for standard output
    std::optional<struct stat> existing_;
    std::optional<PendingFile> file_;  // after folder_, which it uses
};

}  // namespace tarnwick::qvx
