#include "base/guarded_open.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <vector>

namespace tarnwick {

namespace {

constexpr int maxLinks = 40;  // the kernel's own limit

// Nearly every path has no link and needs this one call only. Where openat2 is missing (old kernels, sandboxes), it
// fails as it does at a link, and the path is opened by components.
FileDescriptor openWithoutLinks(const std::string& path) {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

FileDescriptor openRoot() { return FileDescriptor(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)); }

// Pushes the components of `path` so that the first one is on top.
void pushComponents(std::string_view path, std::vector<std::string>& pending) {
    while (!path.empty()) {
        const auto slash = path.rfind('/');
        const auto begin = slash == std::string_view::npos ? 0 : slash + 1;
        if (begin < path.size()) pending.emplace_back(path.substr(begin));
        path = path.substr(0, slash == std::string_view::npos ? 0 : slash);
    }
}

bool hasTrustedOwner(const struct stat& status) { return status.st_uid == 0 || status.st_uid == ::geteuid(); }

// A user who can write to the folder can rename a link of root in it, or replace the link.
bool isTrusted(const struct stat& link, const FileDescriptor& folder) {
    struct stat status {};
    if (!hasTrustedOwner(link) || ::fstat(folder.get(), &status) != 0 || !hasTrustedOwner(status)) return false;
    return (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (status.st_mode & S_ISVTX) != 0;
}

std::string targetOf(const FileDescriptor& link) {
    std::array<char, PATH_MAX> target{};
    const auto length = ::readlinkat(link.get(), "", target.data(), target.size());
    return {target.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

Result<FileDescriptor> walk(const std::string& path) {
    std::vector<std::string> pending;
    pushComponents(path, pending);
    FileDescriptor current = openRoot();
    if (!current) return systemError(errno);
    for (int links = 0; !pending.empty();) {
        FileDescriptor next(::openat(current.get(), pending.back().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        pending.pop_back();
        struct stat status {};
        if (!next || ::fstat(next.get(), &status) != 0) return systemError(errno);
        if (S_ISLNK(status.st_mode)) {
            if (!isTrusted(status, current) || ++links > maxLinks) return systemError(ELOOP);
            const auto target = targetOf(next);
            if (target.empty()) return systemError(ENOENT);
            if (target.starts_with('/')) current = openRoot();
            if (!current) return systemError(errno);
            pushComponents(target, pending);
        } else {
            if (!S_ISDIR(status.st_mode)) return systemError(ENOTDIR);
            current = std::move(next);
        }
    }
    return current;
}

}  // namespace

Result<FileDescriptor> openDirectoryGuarded(const std::string& path) {
    if (auto directory = openWithoutLinks(path)) return directory;
    return walk(path);
}

}  // namespace tarnwick
