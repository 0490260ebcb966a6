#include "collection.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "qvx/write/disk_entry.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

using DirectoryHandle = std::unique_ptr<DIR, FreeWith<closedir>>;

// Opened in its folder, because the kernel refuses a path of 4096 bytes.
Result<DirectoryHandle> openListed(const std::string& path) {
    const auto folder = openDirectory(std::string(folderOf(path)));
    if (!folder) return folder.error();
    FileDescriptor opened(openat(folder->get(), nameOf(path), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DirectoryHandle handle(opened ? fdopendir(opened.get()) : nullptr);
    if (!handle) return systemError(errno);
    static_cast<void>(opened.release());  // the handle closes it
    return handle;
}

// The errno value of a failure. A directory may be readable without permission to reach the files in it. Mostly it says
// what kind of file each is, which is enough to store the file as unreadable.
int readStatus(int directory, const dirent& entry, struct stat& status) {
    if (fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) return 0;
    const int error = errno;
    if (!isUnreadable(error) || entry.d_type == DT_UNKNOWN || fstat(directory, &status) != 0) return error;
    status.st_mode = static_cast<mode_t>(DTTOIF(entry.d_type));
    status.st_ino = entry.d_ino;
    status.st_size = 0;
    return 0;
}

std::string join(const std::string& directory, const std::string& name) {
    return directory.ends_with('/') ? directory + name : directory + '/' + name;
}

}  // namespace

// Such a list may have a million names, which would all have to be looked up once more.
Status Collection::add(const std::string& path) {
    contentSize_.reset();
    const auto added = addNamed(path);
    return added ? Status() : added.error();
}

Status Collection::addTree(const std::string& path) {
    const auto added = addNamed(path);
    if (!added) return added.error();
    if (!*added) return {};
    if ((*added)->type == EntryType::directory) return addBelow({(*added)->path, path});
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) addSize(status);
    return {};
}

// None if the file cannot be reached, or its path is too long for an archive. What is no file at all has no code.
Result<std::optional<PathList::Entry>> Collection::addNamed(const std::string& path) {
    auto entry = lookUp(working_, path);
    if (!entry && entry.error().code == 0) return entry.error();
    if (!entry) {
        Status left = leaveOut(entry.error());
        return left ? Result<std::optional<PathList::Entry>>(std::nullopt) : left.error();
    }
    list_.append(*entry);
    return std::optional(std::move(*entry));
}

Status Collection::addBelow(const Place& directory) {
    const auto below = readDirectory(directory.listed);
    if (!below)
        return leaveOut({below.error().text, below.error().code, directory.shown}, "the files in it are left out");
    for (const Found& found : *below)
        if (Status added = addFound(found, directory.below(found.name)); !added) return added;
    return {};
}

// In order of names. Closes the directory: the recursion may be deep, and descriptors are limited. The iterator of the
// standard library would end the process when memory runs out.
Result<std::vector<Collection::Found>> Collection::readDirectory(const std::string& path) {
    const auto directory = openListed(path);
    if (!directory) return directory.error();
    std::vector<Found> below;
    for (errno = 0; const dirent* entry = readdir(directory->get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        Found& found = below.emplace_back();
        found.name = name;
        found.error = readStatus(dirfd(directory->get()), *entry, found.status);
    }
    if (errno != 0) return systemError(errno);
    std::sort(below.begin(), below.end(), [](const Found& a, const Found& b) { return a.name < b.name; });
    return below;
}

Collection::Place Collection::Place::below(const std::string& name) const {
    return {join(listed, name), join(shown, name)};
}

Status Collection::addFound(const Found& found, const Place& place) {
    if (found.error != 0) return leaveOut(systemError(found.error, place.shown));
    if (!normalPath("/", place.listed)) return leaveOut(systemError(ENAMETOOLONG, place.shown));
    const auto type = entryTypeOf(found.status.st_mode);
    const bool output = type == EntryType::file && output_.isAt(found.status);
    if (!type) report(escapedName(place.shown) + ": left out: not a file, a directory or a symbolic link");
    if (output) report(escapedName(place.shown) + ": left out: it is the archive itself");
    if (!type || output) return {};
    list_.append({place.listed, *type, found.status.st_dev, found.status.st_ino});
    if (type == EntryType::directory) return addBelow(place);
    addSize(found.status);
    return {};
}

void Collection::addSize(const struct stat& status) {
    if (contentSize_ && status.st_size > 0) *contentSize_ += static_cast<std::uint64_t>(status.st_size);
}

Status Collection::leaveOut(const Error& error, std::string_view what) {
    if (strict_ || !isUnreadable(error.code)) return error;
    report(escapedName(error.subject) + ": " + std::string(what) + ": " + error.text);
    complete_ = false;
    return {};
}

}  // namespace tarnwick::qvx
