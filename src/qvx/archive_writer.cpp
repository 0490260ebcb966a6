#include "qvx/archive_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/write_piece.h"
#include "qvx/crypto/ssh_key.h"
#include "qvx/format/file_header.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint32_t groupLength = 16;

Result<HpkeKeys> writeHeader(const Point& recipient, EVP_PKEY* ephemeral, const ArchiveWriter::Sink& sink) {
    if (!startCipherLibrary()) return Error{"the cipher library cannot be started", 0, {}};
    const KeyHandle key = publicKeyFromPoint(recipient);
    if (!key) return Error{"the recipient's key is not valid", 0, {}};
    const KeyHandle generated = ephemeral ? nullptr : generatePrivateKey();
    PlainHeader header{groupLength, sshFingerprint(recipient), {}};
    const auto bound = encodePlainHeader(header);
    const auto sender = ephemeral || generated
                            ? hpkeSend(Aead::aes256Gcm, key.get(), ephemeral ? ephemeral : generated.get(),
                                       Bytes(bound).first(boundHeaderSize))
                            : std::nullopt;
    if (!sender) return Error{"the keys of the archive cannot be made", 0, {}};
    header.encapsulated = sender->encapsulated;
    if (Status written = sink(encodePlainHeader(header)); !written) return written.error();
    return sender->keys;
}

}  // namespace

Result<ArchiveWriter> ArchiveWriter::open(const Point& recipient, unsigned sealers, Sink sink, EVP_PKEY* ephemeral) {
    const auto keys = writeHeader(recipient, ephemeral, sink);
    if (!keys) return keys.error();
    return ArchiveWriter(std::make_unique<BlockStream>(*keys, groupLength, sealers, std::move(sink)));
}

Result<std::vector<IncompleteEntry>> ArchiveWriter::write(const PathList& list, FieldMask fields, unsigned readers) {
    if (used_) return systemError(EINVAL);
    used_ = true;
    ArchiveEncoder encoder(*blocks_, fields, readers);
    if (Status written = encoder.write(list, plainHeaderSize); !written) return written.error();
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
