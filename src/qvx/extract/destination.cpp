#include "qvx/extract/destination.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tarnwick::qvx {

namespace {

FileDescriptor enter(int directory, const std::string& name, bool create) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor entered(openat(directory, name.c_str(), flags));
    if (!entered && errno == ENOENT && create && (mkdirat(directory, name.c_str(), 0777) == 0 || errno == EEXIST))
        entered = FileDescriptor(openat(directory, name.c_str(), flags));
    return entered;
}

}  // namespace

std::string Destination::nameOf(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

std::string_view Destination::parentPathOf(std::string_view path) {
    return path.substr(0, std::max(path.rfind('/') + 1, std::size_t{1}) - 1);
}

int Destination::parentOf(std::string_view path, bool create) {
    const auto parentPath = parentPathOf(path);
    if (parentPath.empty()) return root_;
    // What was a directory may have become a link, if the archive or somebody else has replaced it. The open descriptor
    // still leads to the directory.
    if (parent_ && parentPath == parentPath_) return parent_->get();
    FileDescriptor directory;
    for (std::size_t begin = 0; begin < parentPath.size();) {
        const std::size_t end = std::min(parentPath.find('/', begin), parentPath.size());
        const int from = directory ? directory.get() : root_;
        directory = enter(from, std::string(parentPath.substr(begin, end - begin)), create);
        if (!directory) return -1;
        begin = end + 1;
    }
    parent_ = std::make_shared<const FileDescriptor>(std::move(directory));
    parentPath_ = parentPath;
    return parent_->get();
}

}  // namespace tarnwick::qvx
