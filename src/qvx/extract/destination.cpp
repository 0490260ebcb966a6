#include "qvx/extract/destination.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxOpened = 16;  // directories on the way to another

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
    keepCommon(parentPath);
    path_ = parentPath;
    for (std::size_t begin = opened_.empty() ? 0 : opened_.back().length + 1; begin < path_.size();) {
        const std::size_t end = std::min(path_.find('/', begin), path_.size());
        FileDescriptor next = openComponent(run_, last(), path_.substr(begin, end - begin));
        if (!next) return openError(errno, path);
        if (opened_.size() > maxOpened) opened_.pop_back();
        opened_.push_back({end, std::make_shared<const FileDescriptor>(std::move(next))});
        begin = end + 1;
    }
    return last();
}

// What was a directory may have become a link, if the archive or somebody else has replaced it. The open descriptor
// still leads to the directory. An entry that replaces a directory comes with the path of the one above it, which
// forgets it here.
void Destination::keepCommon(std::string_view path) {
    const auto leadsTo = [&](const Opened& opened) {
        const bool complete =
            path.size() == opened.length || (path.size() > opened.length && path[opened.length] == '/');
        return complete && path.starts_with(std::string_view(path_).substr(0, opened.length));
    };
    while (!opened_.empty() && !leadsTo(opened_.back())) opened_.pop_back();
}

}  // namespace tarnwick::qvx
