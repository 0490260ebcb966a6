#include "base/pending_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdio>

#include "base/random_name.h"

namespace tarnwick {

namespace {

// A link to an unnamed file is made through this path, because AT_EMPTY_PATH needs a privilege that users do not have.
std::string pathOf(const FileDescriptor& file) { return "/proc/self/fd/" + std::to_string(file.get()); }

}  // namespace

Result<PendingFile> PendingFile::create(int folder, std::string_view hiddenPrefix) {
    PendingFile made(folder, hiddenPrefix);
    made.createUnnamed();
    if (made.file_) return made;
    if (Status created = made.createHidden(); !created) return created.error();
    return made;
}

PendingFile::~PendingFile() {
    if (file_ && isHidden()) ::unlinkat(folder_, hiddenName_.c_str(), 0);
}

// Not when /proc is missing: the file could not get a name at the end.
void PendingFile::createUnnamed() {
    FileDescriptor file(::openat(folder_, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (file && ::faccessat(AT_FDCWD, pathOf(file).c_str(), F_OK, 0) == 0) file_ = std::move(file);
}

// Another process may remove the file before it is locked here; then its name is gone.
Status PendingFile::createHidden() {
    do {
        hiddenName_ = newHiddenName();
        const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        file_ = FileDescriptor(::openat(folder_, hiddenName_.c_str(), flags, 0600));
        if (!file_) return systemError(errno);
        ::flock(file_.get(), LOCK_EX);
    } while (::faccessat(folder_, hiddenName_.c_str(), F_OK, 0) != 0 && errno == ENOENT);
    return {};
}

std::string PendingFile::newHiddenName() const { return hiddenPrefix_ + randomDigits(); }

Status PendingFile::place(const std::string& name) {
    if (isHidden() ? renameToFreeName(name) : link(name)) return {};
    return systemError(errno);
}

// An unnamed file cannot replace another one, so it gets a hidden name first.
Status PendingFile::replace(const std::string& name) {
    if (!isHidden()) {
        const std::string hidden = newHiddenName();
        if (!link(hidden)) return systemError(errno);
        hiddenName_ = hidden;
    }
    if (::renameat(folder_, hiddenName_.c_str(), folder_, name.c_str()) != 0) return systemError(errno);
    hiddenName_.clear();
    return {};
}

bool PendingFile::link(const std::string& name) const {
    return ::linkat(AT_FDCWD, pathOf(file_).c_str(), folder_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

// Not every file system can rename without replacing. A hard link does not replace either.
bool PendingFile::renameToFreeName(const std::string& name) {
    if (::renameat2(folder_, hiddenName_.c_str(), folder_, name.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno != EINVAL || ::linkat(folder_, hiddenName_.c_str(), folder_, name.c_str(), 0) != 0) return false;
        ::unlinkat(folder_, hiddenName_.c_str(), 0);
    }
    hiddenName_.clear();
    return true;
}

}  // namespace tarnwick
