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
    return std::unique_ptr<ArchiveFile>(
        new ArchiveFile(std::move(descriptor), static_cast<std::uint64_t>(status.st_size)));
}

void ArchiveFile::setBlocks(std::uint64_t begin, std::uint64_t end) {
    blocksBegin_ = begin;
    blocksEnd_ = std::max(begin, end);
}

Status ArchiveFile::read(std::uint64_t position, MutableBytes bytes) const {
    // Checked first, because a position from a hostile archive may be too large for pread.
    if (position > size_ || bytes.size() > size_ - position) return pastEnd();
    bytesRead_ += bytes.size();
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
