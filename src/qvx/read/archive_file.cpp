#include "qvx/read/archive_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/file_reading.h"

namespace tarnwick::qvx {

namespace {

Error pastEnd() { return {"the archive ends here"}; }

}  // namespace

Result<std::unique_ptr<ArchiveFile>, ReadFault> ArchiveFile::open(FileDescriptor descriptor) {
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) return ReadFault{systemError(errno)};
    // Every position is checked against the size of the file, and a pipe or a device has none.
    if (!S_ISREG(status.st_mode)) return readFault("not a regular file");
    std::unique_ptr<ArchiveFile> file(
        new ArchiveFile(std::move(descriptor), static_cast<std::uint64_t>(status.st_size)));
    // Of a file that is shorter than a header, all bytes: the decoder reports what is wrong with it.
    file->headerBytes_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(file->size_, plainHeaderSize)));
    if (auto header = file->read(0, file->headerBytes_); !header) return ReadFault{header.error()};
    const auto header = decodePlainHeader(file->headerBytes_);
    if (!header) return ReadFault{header.error()};
    file->header_ = *header;
    return file;
}

Status ArchiveFile::read(std::uint64_t position, MutableBytes bytes) const {
    // Checked first, because a position of a hostile header may be too large for pread.
    if (position > size_ || bytes.size() > size_ - position) return pastEnd();
    while (!bytes.empty()) {
        const auto count = readAt(descriptor_.get(), bytes, position);
        if (!count) return count.error();
        if (*count == 0) return pastEnd();  // somebody has shortened the file
        bytes = bytes.subspan(*count);
        position += *count;
    }
    return {};
}

}  // namespace tarnwick::qvx
