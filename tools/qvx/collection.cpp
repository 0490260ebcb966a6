#include "collection.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "qvx/write/disk_entry.h"
#include "report.h"

namespace tarnwick::qvx {

// Such a list may have a million names, which would all have to be looked up once more.
Status Collection::add(const std::string& path) {
    contentSize_.reset();
    const auto added = addNamed(path);
    return added ? Status() : added.error();
}

Status Collection::addTree(const std::string& path, DirectoryReadAhead& ahead) {
    const auto added = addNamed(path);
    if (!added) return added.error();
    if (!*added) return {};
    if ((*added)->type == EntryType::directory) return addBelow({(*added)->path, path}, ahead);
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) addSize(static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0)));
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

Status Collection::addBelow(const Place& directory, DirectoryReadAhead& ahead) {
    const auto below = ahead.read(directory.listed);
    if (!below)
        return leaveOut({below.error().text, below.error().code, directory.shown}, "the files in it are left out");
    for (const FoundFile& found : *below)
        if (Status added = addFound(found, directory.below(found.name), ahead); !added) return added;
    return {};
}

Collection::Place Collection::Place::below(const std::string& name) const {
    return {pathBelow(listed, name), pathBelow(shown, name)};
}

Status Collection::addFound(const FoundFile& found, const Place& place, DirectoryReadAhead& ahead) {
    if (found.error != 0) return leaveOut(systemError(found.error, place.shown));
    if (place.listed.size() > maxPathLength + 1) return leaveOut(systemError(ENAMETOOLONG, place.shown));
    const auto type = entryTypeOf(found.mode);
    const bool output = type == EntryType::file && output_.isAt(found.device, found.inode);
    if (!type) report(escapedName(place.shown) + ": left out: not a file, a directory or a symbolic link");
    if (output) report(escapedName(place.shown) + ": left out: it is the archive itself");
    if (!type || output) return {};
    list_.append({place.listed, *type, found.device, found.inode});
    if (type == EntryType::directory) return addBelow(place, ahead);
    addSize(found.size);
    return {};
}

void Collection::addSize(std::uint64_t size) {
    if (contentSize_) *contentSize_ += size;
}

Status Collection::leaveOut(const Error& error, std::string_view what) {
    if (strict_ || !isUnreadable(error.code)) return error;
    report(escapedName(error.subject) + ": " + std::string(what) + ": " + error.text);
    complete_ = false;
    return {};
}

}  // namespace tarnwick::qvx
