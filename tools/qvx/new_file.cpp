#include "new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tarnwick::qvx {

NewFile::NewFile(std::string path, mode_t mode)
    : path_(std::move(path)), descriptor_(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)) {
    if (!descriptor_) made_ = systemError(errno, path_);
}

NewFile::~NewFile() {
    if (descriptor_ && !kept_) unlink(path_.c_str());
}

Status NewFile::append(Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor_.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return systemError(errno, path_);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

Status NewFile::sync() {
    if (fsync(descriptor_.get()) != 0) return systemError(errno, path_);
    return {};
}

}  // namespace tarnwick::qvx
