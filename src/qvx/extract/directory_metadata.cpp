#include "qvx/extract/directory_metadata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnwick::qvx {

namespace {

// The metadata of all directories is in memory until the end, and each may have attributes of up to 2 MiB.
constexpr std::size_t maxAttributeMemory = 64U << 20;

bool isDirectory(int parent, const std::string& name) {
    struct stat status {};
    return fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Status DirectoryMetadata::add(const EntryHead& head, const EntryTail& tail) {
    const std::size_t size = attributeMemory(tail);
    const bool fits = size <= maxAttributeMemory - attributeBytes_;
    directories_[head.path] = {head, fits ? tail : EntryTail{}};
    if (!fits) return Error{"attributes and access control lists are not restored: there are too many", 0, head.path};
    attributeBytes_ += size;
    return {};
}

void DirectoryMetadata::restore(ExtractionRun& run, Destination& destination) const {
    // Backwards, so that a directory comes after those in it: its own mode may forbid access to them.
    for (auto directory = directories_.rbegin(); directory != directories_.rend(); ++directory) {
        const auto& [path, metadata] = *directory;
        const std::string name = Destination::nameOf(path);
        const auto parent = destination.openParent(path);
        // A later entry of the same path may have replaced the directory.
        if (parent && isDirectory(*parent, name) && fchdir(*parent) == 0)
            restoreDirectory(run, name, metadata.head, metadata.tail);
    }
}

}  // namespace tarnwick::qvx
