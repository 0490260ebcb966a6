#include "qvx/extract/temporary_file.h"

#include <archive.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/random_name.h"
#include "base/write_piece.h"

namespace tarnwick::qvx {

namespace {

std::string randomName() { return ".qvx-" + randomDigits(); }

}  // namespace

Status TemporaryFile::create(int directory, const EntryHead& head, const std::string* linkTarget) {
    discard();
    size_ = written_ = 0;
    linked_ = false;
    directory_ = directory;
    head_ = head;
    // libarchive creates files by name, and has no call that takes a descriptor of the directory.
    if (fchdir(directory) != 0) return systemError(errno, head.path);
    // The name contains no directory that could be a link.
    if (!writer_) writer_ = newDiskWriter(ARCHIVE_EXTRACT_NO_OVERWRITE);
    const std::string name = randomName();
    if (writeHeader(writer_.get(), name, head, linkTarget) < ARCHIVE_WARN) return writeError();
    name_ = name;
    open_ = true;
    return openCreated();
}

// Other users may be able to write in the directory and put their own file under this name. It must not get rights that
// only root can grant.
Status TemporaryFile::openCreated() {
    struct stat status {};
    file_ = FileDescriptor(open(name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file_) return systemError(errno, head_.path);
    if (fstat(file_.get(), &status) != 0 || status.st_uid != geteuid() || status.st_nlink != 1) file_ = {};
    return {};
}

Status TemporaryFile::link(int directory, int source) {
    linked_ = true;
    directory_ = directory;
    const std::string name = randomName();
    const std::string place = "/proc/self/fd/" + std::to_string(source);
    // By way of /proc, because AT_EMPTY_PATH needs a privilege that users do not have.
    if (linkat(AT_FDCWD, place.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) != 0) return systemError(errno);
    name_ = name;
    return {};
}

Status TemporaryFile::append(Bytes bytes) {
    while (!bytes.empty()) {
        const Bytes piece = bytes.first(std::min(bytes.size(), writePiece));
        const auto offset = static_cast<la_int64_t>(size_);
        if (archive_write_data_block(writer_.get(), piece.data(), piece.size(), offset) < ARCHIVE_OK)
            return writeError();
        written_ = size_ += piece.size();
        bytes = bytes.subspan(piece.size());
    }
    return {};
}

Status TemporaryFile::finish(const EntryTail& tail) {
    static constexpr std::uint8_t zero = 0;
    if (!open_) return {};
    // The disk writer knows the size only from the last byte written.
    if (size_ > written_) {
        --size_;
        if (auto written = append(Bytes(&zero, 1)); !written) return written;
    }
    open_ = false;
    const int result = archive_write_finish_entry(writer_.get());
    if (result < ARCHIVE_WARN) return writeError();
    if (result < ARCHIVE_OK) run_.warn(writerError(writer_.get(), "metadata not restored", head_.path));
    // After owner and mode: chown(2) removes file capabilities, and chmod(2) changes the mask of an access control
    // list.
    if (file_) {
        restoreAttributes(run_, head_, file_, tail);
    } else {
        run_.warn({"attributes and access control lists are not restored: the file has another owner", 0, head_.path});
    }
    return {};
}

Status TemporaryFile::rename(const std::string& name) {
    int result = renameat(directory_, name_.c_str(), directory_, name.c_str());
    // rename(2) replaces no directory by a file. An empty one is removed, as a file of that name would be.
    if (result != 0 && errno == EISDIR && unlinkat(directory_, name.c_str(), AT_REMOVEDIR) == 0)
        result = renameat(directory_, name_.c_str(), directory_, name.c_str());
    return renamed(result);
}

Status TemporaryFile::renameIfFree(const std::string& name) {
    return renamed(renameat2(directory_, name_.c_str(), directory_, name.c_str(), RENAME_NOREPLACE));
}

Status TemporaryFile::renamed(int result) {
    if (result != 0) return systemError(errno, head_.path);
    // When both names belong to the same file already, rename(2) does nothing.
    if (linked_) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    return {};
}

void TemporaryFile::discard() {
    // The disk writer must close its file before it can begin the next one.
    if (open_) archive_write_finish_entry(writer_.get());
    open_ = false;
    if (exists()) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    file_ = {};
}

Error TemporaryFile::writeError() const {
    Error error = writerError(writer_.get(), "cannot be written", head_.path);
    if (error.code > 0) error.text += std::string(": ") + std::strerror(error.code);
    return error;
}

}  // namespace tarnwick::qvx
