#include "archive_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "interruption.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxCached = 4194304;  // bytes that the disk has not been asked to write

constexpr mode_t archiveMode = 0644;
constexpr std::string_view hiddenPrefix = ".qvx-";

// O_PATH, because a user may be able to create files in a folder without being able to list it.
FileDescriptor openFolder(const std::string& path) {
    return FileDescriptor(::open(path.empty() ? "." : path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

Result<ArchiveOutput> ArchiveOutput::open(const std::string& path) {
    if (path == "-") return openStandard();
    const std::size_t nameAt = path.rfind('/') + 1;
    if (nameAt == path.size()) return systemError(path.empty() ? ENOENT : EISDIR, path);
    ArchiveOutput output(path, path.substr(nameAt), openFolder(path.substr(0, nameAt)));
    if (!output.folder_) return output.failure(errno);
    if (Status checked = output.checkExisting(); !checked) return checked.error();
    return output;
}

Result<ArchiveOutput> ArchiveOutput::openStandard() {
    ArchiveOutput output("standard output", {}, FileDescriptor());
    if (::isatty(STDOUT_FILENO) == 1) return Error{"an archive is not for a terminal; redirect it", 0, output.path_};
    struct stat status {};
    if (::fstat(STDOUT_FILENO, &status) != 0) return output.failure(errno);
    // A file among those that go into the archive must be left out.
    if (S_ISREG(status.st_mode)) output.existing_ = status;
    return output;
}

// To replace a file, one needs rights to its folder only. To write to it, which is what the user asks for, one needs
// rights to the file.
Status ArchiveOutput::checkExisting() {
    struct stat status {};
    existing_.reset();
    if (::fstatat(folder_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Status() : failure(errno);
    if (!S_ISREG(status.st_mode)) return Error{"not a regular file", 0, path_};
    if (::geteuid() != 0 && status.st_uid != ::geteuid()) return failure(EPERM);
    if (::faccessat(folder_.get(), name_.c_str(), W_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) != 0) return failure(errno);
    existing_ = status;
    return {};
}

bool ArchiveOutput::isAt(dev_t device, ino_t inode) const {
    return existing_ && existing_->st_dev == device && existing_->st_ino == inode;
}

Status ArchiveOutput::create() {
    if (!folder_) return {};
    watchForInterruption();  // before the file exists, because its hidden name would remain
    auto created = PendingFile::create(folder_.get(), hiddenPrefix);
    if (!created) return failure(created.error().code);
    file_.emplace(std::move(*created));
    if (!file_->isHidden()) stopWatchingForInterruption();
    // The mode does not depend on the umask.
    return ::fchmod(file_->descriptor(), archiveMode) == 0 ? Status() : failure(errno);
}

ArchiveWriter::Sink ArchiveOutput::sink() const {
    const int file = file_ ? file_->descriptor() : STDOUT_FILENO;
    return [write = fileSink(file, path_), file, path = path_, cached = std::size_t{0}](Bytes bytes) mutable -> Status {
        if (interrupted()) return Error{"interrupted"};
        if (Status written = write(bytes); !written) return written;
        cached += bytes.size();
        if (cached < maxCached) return {};
        cached = 0;
        // The disk writes while the next blocks are compressed, and place() waits for less.
        if (::sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE) == 0) return {};
        // Not a failure for a pipe, or for a file system without this call.
        const bool unsupported = errno == ESPIPE || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
        return unsupported ? Status() : systemError(errno, path);
    };
}

// What is at the path is checked again: writing the archive may have taken hours.
Status ArchiveOutput::place() {
    if (!folder_) return existing_ && ::fsync(STDOUT_FILENO) != 0 ? failure(errno) : Status();
    if (::fsync(file_->descriptor()) != 0) return failure(errno);
    watchForInterruption();  // or a file with a hidden name may remain
    if (interrupted()) return Error{"interrupted"};
    if (Status checked = checkExisting(); !checked) return checked;
    const Status placed = existing_ ? file_->replace(name_) : file_->place(name_);
    return placed ? syncFolder() : failure(placed.error().code);
}

Status ArchiveOutput::syncFolder() const {
    const FileDescriptor folder(::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // A folder that the user cannot read is synced with its whole file system.
    const int result = folder ? ::fsync(folder.get()) : ::syncfs(file_->descriptor());
    // EINVAL: a file system that does not sync folders
    return result == 0 || errno == EINVAL ? Status() : failure(errno);
}

}  // namespace tarnwick::qvx
