#include "platform/archive_library.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <system_error>

#include "base/handle.h"
#include "base/write_piece.h"
#include "platform/encryption_context.h"
#include "qvx/crypto/ssh_key.h"
#include "qvx/format/file_header.h"
#include "qvx/write/archive_encoder.h"
#include "qvx/write/block_stream.h"
#include "qvx/write/path_list.h"

namespace tarnwick {

// A file, or the blocks on their way to one.
struct ByteStream {
    FileDescriptor file;
    std::unique_ptr<qvx::BlockStream> blocks;
};

struct FieldKeySet {
    qvx::FieldMask fields = 0;
};

struct ArchiveStream {
    qvx::BlockStream* blocks = nullptr;
    int workers = 0;
    bool used = false;
    std::vector<IncompleteEntry> incomplete{};
};

namespace {

constexpr std::uint32_t groupLength = 16;

// The library throws only when memory or threads are not available; then the result is `onFailure`.
template <typename Result, typename Operation>
Result guarded(Result onFailure, Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return onFailure;
    } catch (const std::system_error&) {
        return onFailure;
    }
}

int writeAll(int file, qvx::Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), std::min(bytes.size(), writePiece));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count < 0 ? -errno : -EIO;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return 0;
}

std::optional<qvx::HpkeKeys> writeHeader(int file, const EncryptionContext& context) {
    const auto recipient = qvx::publicKeyFromPoint(*context.recipient);
    const auto generated = context.ephemeral ? nullptr : qvx::generatePrivateKey();
    auto* ephemeral = context.ephemeral ? context.ephemeral.get() : generated.get();
    if (!recipient || !ephemeral) return std::nullopt;
    qvx::PlainHeader header{groupLength, qvx::sshFingerprint(*context.recipient), {}};
    const auto bound = qvx::encodePlainHeader(header);
    const auto sender =
        qvx::hpkeSend(qvx::Aead::aes256Gcm, recipient.get(), ephemeral, qvx::Bytes(bound).first(qvx::boundHeaderSize));
    if (!sender) return std::nullopt;
    header.encapsulated = sender->encapsulated;
    if (writeAll(file, qvx::encodePlainHeader(header)) != 0) return std::nullopt;
    return sender->keys;
}

}  // namespace

PathList* newPathList() { return new (std::nothrow) PathList; }

PathList* pathListForPath(std::string_view directory, std::string_view path) {
    return guarded<PathList*>(nullptr, [&]() -> PathList* {
        const auto entry = qvx::lookUpGuarded(directory, path);
        if (!entry) return nullptr;
        auto list = std::make_unique<PathList>();
        list->append(*entry);
        return list.release();
    });
}

int mergePathLists(PathList* target, const PathList* source) {
    if (!target || !source || target == source) return -EINVAL;
    return guarded(-ENOMEM, [&] {
        target->append(*source);
        return 0;
    });
}

void destroyPathList(PathList* list) { delete list; }

FieldKeySet* fieldKeySetFromString(std::string_view keys) {
    const auto fields = qvx::parseFieldKeys(keys);
    return fields ? new (std::nothrow) FieldKeySet{*fields} : nullptr;
}

void destroyFieldKeySet(FieldKeySet* keys) { delete keys; }

ByteStream* openFileByteStream(const char* path, int openFlags, mode_t mode) {
    FileDescriptor file(::open(path, openFlags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
    if (::fchmod(file.get(), mode) != 0) return nullptr;
    return new (std::nothrow) ByteStream{std::move(file), nullptr};
}

EncryptionContext* createEncryptionContext(int profile) {
    const bool usable = profile == qvx::profileHpke && qvx::startCipherLibrary();
    return usable ? new (std::nothrow) EncryptionContext : nullptr;
}

int setContextFieldBlob(EncryptionContext* context, int field, int representation, const std::byte* bytes,
                        std::size_t length) {
    if (!context || field != contextFieldRecipient || representation != representationUncompressed) return -EINVAL;
    qvx::Point point{};
    constexpr std::byte uncompressedForm{4};
    if (length != point.size() || bytes[0] != uncompressedForm) return -EINVAL;
    std::transform(bytes, bytes + length, point.begin(),
                   [](std::byte byte) { return std::to_integer<std::uint8_t>(byte); });
    context->recipient = point;
    return 0;
}

int setContextFieldUInt(EncryptionContext* context, int field, std::uint64_t value) {
    if (!context) return -EINVAL;
    if (field == contextFieldCompression && value == qvx::compressionZstd) {
        context->compressionSet = true;
        return 0;
    }
    if (field == contextFieldBlockSize && value == qvx::blockSize) {
        context->blockSizeSet = true;
        return 0;
    }
    return -EINVAL;
}

void destroyEncryptionContext(EncryptionContext* context) { delete context; }

ByteStream* openEncryptionOutputStream(ByteStream* underlying, const EncryptionContext* context, std::uint64_t flags,
                                       int workers) {
    if (!underlying || !underlying->file || !context || !context->recipient || !context->compressionSet ||
        !context->blockSizeSet || flags != qvx::streamFlags || workers < 1)
        return nullptr;
    return guarded<ByteStream*>(nullptr, [&]() -> ByteStream* {
        auto stream = std::make_unique<ByteStream>();
        const int file = underlying->file.get();
        const auto keys = writeHeader(file, *context);
        if (!keys) return nullptr;
        stream->blocks = std::make_unique<qvx::BlockStream>(*keys, groupLength, static_cast<unsigned>(workers),
                                                            [file](qvx::Bytes bytes) { return writeAll(file, bytes); });
        return stream.release();
    });
}

ArchiveStream* openArchiveEncoderStream(ByteStream* underlying, void*, MessageCallback, std::uint64_t flags,
                                        int workers) {
    if (!underlying || !underlying->blocks || flags != 0 || workers < 1) return nullptr;
    return new (std::nothrow) ArchiveStream{underlying->blocks.get(), workers};
}

int writePathList(ArchiveStream* archive, const PathList* list, const FieldKeySet* keys, std::string_view directory,
                  void*, MessageCallback, std::uint64_t flags, int workers) {
    if (!archive || archive->used || !list || !keys || directory != "/" || flags != 0 || workers != archive->workers)
        return -EINVAL;
    archive->used = true;
    return guarded(-ENOMEM, [&] {
        qvx::ArchiveEncoder encoder(*archive->blocks, keys->fields, static_cast<unsigned>(workers));
        const int status = encoder.write(*list, qvx::plainHeaderSize);
        archive->incomplete = std::move(encoder.incomplete());
        return status;
    });
}

std::span<const IncompleteEntry> incompleteEntries(const ArchiveStream* archive) {
    return archive ? std::span<const IncompleteEntry>(archive->incomplete) : std::span<const IncompleteEntry>();
}

int closeArchiveStream(ArchiveStream* archive) {
    delete archive;
    return 0;
}

int closeByteStream(ByteStream* stream) {
    if (!stream) return 0;
    const std::unique_ptr<ByteStream> closed(stream);
    closed->blocks.reset();
    const int file = closed->file.release();
    return file < 0 || ::close(file) == 0 ? 0 : -errno;
}

}  // namespace tarnwick
