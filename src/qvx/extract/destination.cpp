#include "qvx/extract/destination.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tarnwick::qvx {

namespace {

// An archive may contain a link and then an entry below it, to write outside of the destination. So a link is refused
// in every component.
FileDescriptor openDirectory(ExtractionRun&, int directory, const std::string& name) {
    return FileDescriptor(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

FileDescriptor makeDirectory(ExtractionRun& run, int directory, const std::string& name) {
    if (FileDescriptor opened = openDirectory(run, directory, name)) return opened;
    if (const auto charged = run.charge(ExtractionRun::minCharge); !charged) {
        errno = charged.error().code;
        return {};
    }
    // Something else is there, or another program made it first: the second call says which.
    if (mkdirat(directory, name.c_str(), 0777) != 0 && errno != EEXIST) return {};
    return openDirectory(run, directory, name);
}

Error openError(int code, std::string_view path) {
    Error error = systemError(code, std::string(path));
    if (code == ENOTDIR) error.text = "one of its folders exists as a link or a file; remove that and try again";
    return error;
}

}  // namespace

std::string Destination::nameOf(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

std::string_view Destination::parentPathOf(std::string_view path) {
    // Without a slash, rfind() gives npos, and npos + 1 is 0.
    return path.substr(0, std::max(path.rfind('/') + 1, std::size_t{1}) - 1);
}

Result<int> Destination::openParent(std::string_view path) { return parent(path, openDirectory); }

Result<int> Destination::makeParent(std::string_view path) { return parent(path, makeDirectory); }

Result<int> Destination::parent(std::string_view path, OpenDirectory openComponent) {
    const auto parentPath = parentPathOf(path);
    if (parentPath.empty()) return root_;
    // What was a directory may have become a link, if the archive or somebody else has replaced it. The open descriptor
    // still leads to the directory.
    if (parent_ && parentPath == parentPath_) return parent_->get();
    FileDescriptor directory;
    for (std::size_t begin = 0; begin < parentPath.size();) {
        const std::size_t end = std::min(parentPath.find('/', begin), parentPath.size());
        const int from = directory ? directory.get() : root_;
        FileDescriptor next = openComponent(run_, from, std::string(parentPath.substr(begin, end - begin)));
        if (!next) return openError(errno, path);
        directory = std::move(next);
        begin = end + 1;
    }
    parent_ = std::make_shared<const FileDescriptor>(std::move(directory));
    parentPath_ = parentPath;
    return parent_->get();
}

}  // namespace tarnwick::qvx
