#include "qvx/read/archive_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarnwick::qvx {

std::unique_ptr<ArchiveFile> ArchiveFile::open(FileDescriptor descriptor, ReadFault& fault) {
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) {
        fault.what = std::strerror(errno);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        fault.what = "not a regular file";
        return nullptr;
    }
    std::unique_ptr<ArchiveFile> file(
        new ArchiveFile(std::move(descriptor), static_cast<std::uint64_t>(status.st_size)));
    file->headerBytes_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(file->size_, plainHeaderSize)));
    if (!file->read(0, file->headerBytes_, fault.what)) return nullptr;
    const auto header = decodePlainHeader(file->headerBytes_);
    if (!header) {
        fault.what = header.error().text;
        return nullptr;
    }
    file->header_ = *header;
    return file;
}

bool ArchiveFile::read(std::uint64_t position, MutableBytes bytes, std::string& what) const {
    if (position > size_ || bytes.size() > size_ - position) {
        what = "the archive ends here";
        return false;
    }
    while (!bytes.empty()) {
        const ssize_t got = pread(descriptor_.get(), bytes.data(), bytes.size(), static_cast<off_t>(position));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            what = got < 0 ? std::strerror(errno) : "the archive ends here";
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(got));
        position += static_cast<std::uint64_t>(got);
    }
    return true;
}

}  // namespace tarnwick::qvx
