#include "qvx/archive_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/write_piece.h"

namespace tarnwick::qvx {

Result<ArchiveWriter> ArchiveWriter::open(std::span<const Point> recipients, unsigned sealers, Sink sink,
                                          const ArchiveSecrets* secrets) {
    if (!startCipherLibrary()) return Error{"the cipher library cannot be started"};
    const auto made = secrets ? std::nullopt : randomSecrets();
    if (!secrets && !made) return Error{"there are no random bytes for the keys of the archive"};
    const ArchiveSecrets& used = secrets ? *secrets : *made;
    auto header = sealHeader(used, recipients);
    if (!header) return header.error();
    const auto keys = deriveArchiveKeys(used.contentKey, used.salt);
    if (!keys) return Error{"the keys of the archive cannot be made"};
    if (Status written = sink(*header); !written) return written.error();
    auto blocks = std::make_unique<BlockStream>(keys->block, sealers, sink);
    return ArchiveWriter(std::move(*header), std::move(blocks), std::move(sink));
}

Result<std::vector<IncompleteEntry>> ArchiveWriter::write(const PathList& list, FieldMask fields, unsigned readers,
                                                          Unreadable unreadable, EncodingReports reports) {
    if (used_) return systemError(EINVAL);
    used_ = true;
    ArchiveEncoder encoder(*blocks_, fields, readers, unreadable, std::move(reports));
    if (Status written = encoder.write(list); !written) return written.error();
    // An archive is complete when its footer is written, and not earlier.
    if (Status written = sink_(encodeFooter(header_)); !written) return written.error();
    return std::move(encoder.incomplete());
}

Result<FileDescriptor> openArchiveForWriting(const std::string& path, int openFlags, mode_t mode) {
    // Truncated only when it is known to be a regular file whose mode this process may set.
    FileDescriptor file(
        ::open(path.c_str(), (openFlags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return systemError(errno, path);
    if (!S_ISREG(status.st_mode)) return Error{"not a regular file", 0, path};
    if (::fchmod(file.get(), mode) != 0) return systemError(errno, path);
    if (openFlags & O_TRUNC && ::ftruncate(file.get(), 0) != 0) return systemError(errno, path);
    return file;
}

ArchiveWriter::Sink fileSink(int file, std::string path) {
    return [file, path = std::move(path)](Bytes bytes) -> Status {
        while (!bytes.empty()) {
            const ssize_t count = ::write(file, bytes.data(), std::min(bytes.size(), writePiece));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return systemError(count < 0 ? errno : EIO, path);
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
        return {};
    };
}

}  // namespace tarnwick::qvx
