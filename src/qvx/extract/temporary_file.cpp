#include "qvx/extract/temporary_file.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "base/random_name.h"
#include "base/write_piece.h"

namespace tarnwick::qvx {

namespace {

std::string randomName() { return ".qvx-" + randomDigits(); }

// Before Linux 6.10, users can give a name to an unnamed file only by way of /proc.
bool canLinkUnnamed() {
    static const bool can = access("/proc/self/fd", X_OK) == 0;
    return can;
}

// The kernel may refuse a link to a file of another owner, but not to rename it.
bool canLinkFilesOfOthers() {
    static const bool can = [] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
        return syscall(SYS_capget, &header, data.data()) == 0 && (data[0].effective >> CAP_FOWNER & 1) != 0;
    }();
    return can;
}

}  // namespace

Status TemporaryFile::begin(int directory, const EntryHead& head) {
    discard();
    size_ = data_ = written_ = 0;
    linked_ = false;
    directory_ = directory;
    head_ = head;
    return run_.charge(ExtractionRun::minCharge);
}

Status TemporaryFile::create(int directory, const EntryHead& head) {
    if (auto begun = begin(directory, head); !begun) return begun;
    return createUnnamed() ? Status() : createNamed();
}

// With its final mode, which saves a call; but the owner must be able to write to it, to set its attributes.
bool TemporaryFile::createUnnamed() {
    if (!canLinkUnnamed() || (run_.preserves() && !canLinkFilesOfOthers())) return false;
    const mode_t mode = restoredMode(run_, head_) & 0777;
    file_ = FileDescriptor(openat(directory_, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, mode & S_IWUSR ? mode : 0600));
    return static_cast<bool>(file_);
}

Status TemporaryFile::createNamed() {
    const std::string name = randomName();
    file_ =
        FileDescriptor(openat(directory_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_) return fileError(errno);
    name_ = name;
    return {};
}

Status TemporaryFile::createLink(int directory, const EntryHead& head, const std::string& target) {
    if (auto begun = begin(directory, head); !begun) return begun;
    const std::string name = randomName();
    if (symlinkat(target.c_str(), directory, name.c_str()) != 0) return fileError(errno);
    name_ = name;
    return openLink();
}

// Other users may be able to write in the directory and put their own file under this name. It must not get metadata
// that only root can set.
Status TemporaryFile::openLink() {
    struct stat status {};
    file_ = FileDescriptor(openat(directory_, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file_) return fileError(errno);
    if (fstat(file_.get(), &status) != 0) return fileError(errno);
    if (S_ISLNK(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1) return {};
    return Error{"somebody has replaced the new link", 0, head_.path};
}

Status TemporaryFile::link(int directory, const EntryHead& head, int source) {
    if (auto begun = begin(directory, head); !begun) return begun;
    linked_ = true;
    const std::string name = randomName();
    const std::string place = "/proc/self/fd/" + std::to_string(source);
    // By way of /proc, because AT_EMPTY_PATH needs a privilege that users do not have.
    if (linkat(AT_FDCWD, place.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) != 0) return fileError(errno);
    name_ = name;
    return {};
}

// The first bytes were counted when the file was made.
Status TemporaryFile::chargeData(std::uint64_t bytes) {
    const std::uint64_t before = std::max(data_, ExtractionRun::minCharge);
    data_ += bytes;
    return data_ > before ? run_.charge(data_ - before) : Status();
}

Status TemporaryFile::append(Bytes bytes) {
    if (auto charged = chargeData(bytes.size()); !charged) return charged;
    while (!bytes.empty()) {
        const Bytes piece = bytes.first(std::min(bytes.size(), writePiece));
        const ssize_t count = pwrite(file_.get(), piece.data(), piece.size(), static_cast<off_t>(size_));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return fileError(count < 0 ? errno : EIO);
        written_ = size_ += static_cast<std::uint64_t>(count);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

Status TemporaryFile::finish(const EntryTail& tail) {
    if (!file_) return {};
    if (auto finished = finishContent(); !finished) return finished;
    restoreMetadata(run_, head_, tail, file_.get());
    if (head_.type == EntryType::file) {
        const auto identity = identityOf(file_.get());
        if (!identity) return fileError(identity.error().code);
        identity_ = *identity;
    }
    return closeContent();
}

// Some file systems report only here that a write failed. A file without a name must stay open, but they report it for
// any descriptor.
Status TemporaryFile::closeContent() {
    const int closed = isUnnamed() ? fcntl(file_.get(), F_DUPFD_CLOEXEC, 0) : file_.release();
    if (closed < 0 || close(closed) != 0) return fileError(errno);
    return {};
}

Status TemporaryFile::finishPart() {
    if (head_.mode) *head_.mode &= 0777;
    if (auto finished = finish({}); !finished) return finished;
    return isUnnamed() ? giveTemporaryName() : Status();
}

// The size of a file that ends with a hole.
Status TemporaryFile::finishContent() {
    if (size_ == written_) return {};
    if (ftruncate(file_.get(), static_cast<off_t>(size_)) != 0) return fileError(errno);
    return {};
}

// When something has the name, it is replaced in one step, as for a file with a temporary name.
Status TemporaryFile::rename(const std::string& name) {
    if (!isUnnamed()) return renameTo(name);
    const int error = linkAs(name);
    if (error == 0) return file_ = {}, Status();
    if (error != EEXIST) return fileError(error);
    if (auto named = giveTemporaryName(); !named) return named;
    return renameTo(name);
}

// AT_EMPTY_PATH needs a privilege or a new kernel.
int TemporaryFile::linkAs(const std::string& name) {
    if (linkat(file_.get(), "", directory_, name.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT) return errno;
    const std::string place = "/proc/self/fd/" + std::to_string(file_.get());
    return linkat(AT_FDCWD, place.c_str(), directory_, name.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

Status TemporaryFile::giveTemporaryName() {
    const std::string name = randomName();
    if (const int error = linkAs(name); error != 0) return fileError(error);
    name_ = name;
    file_ = {};
    return {};
}

Status TemporaryFile::renameTo(const std::string& name) {
    int result = renameat(directory_, name_.c_str(), directory_, name.c_str());
    // rename(2) replaces no directory by a file. An empty one is removed, as a file of that name would be.
    if (result != 0 && errno == EISDIR && unlinkat(directory_, name.c_str(), AT_REMOVEDIR) == 0)
        result = renameat(directory_, name_.c_str(), directory_, name.c_str());
    if (result != 0) return fileError(errno);
    // When both names belong to the same file already, rename(2) does nothing.
    if (linked_) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    return {};
}

void TemporaryFile::release() {
    file_ = {};
    name_.clear();
}

void TemporaryFile::discard() {
    if (!name_.empty()) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    file_ = {};
}

}  // namespace tarnwick::qvx
