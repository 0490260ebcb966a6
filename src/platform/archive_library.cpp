#include "platform/archive_library.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <optional>

#include "qvx/archive_writer.h"

namespace tarnwick {

// A file, or the writer of an archive that is written to a file.
struct ByteStream {
    FileDescriptor file;
    std::optional<qvx::ArchiveWriter> writer;
};

struct FieldKeySet {
    qvx::FieldMask fields = 0;
};

struct EncryptionContext {
    std::optional<qvx::Point> recipient;
    bool compressionSet = false;
    bool blockSizeSet = false;
};

struct ArchiveStream {
    qvx::ArchiveWriter* writer = nullptr;
    int workers = 0;
};

namespace {

// The library throws when memory or threads are not available; then the result is `onFailure`.
template <typename Value, typename Operation>
Value guarded(Value onFailure, Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::exception&) {
        return onFailure;
    }
}

}  // namespace

PathList* newPathList() { return new (std::nothrow) PathList; }

PathList* pathListForPath(std::string_view directory, std::string_view path) {
    return guarded<PathList*>(nullptr, [&]() -> PathList* {
        // Guarded: the path comes from a search of folders in which other users may replace a directory by a link.
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
    return guarded<ByteStream*>(nullptr, [&]() -> ByteStream* {
        auto file = qvx::openArchiveForWriting(path, openFlags, mode);
        return file ? new ByteStream{std::move(*file), std::nullopt} : nullptr;
    });
}

EncryptionContext* createEncryptionContext(int profile) {
    const bool usable = profile == qvx::profileHpke && qvx::startCipherLibrary();
    return usable ? new (std::nothrow) EncryptionContext : nullptr;
}

int setContextFieldBlob(EncryptionContext* context, int field, int representation, const std::byte* bytes,
                        std::size_t length) {
    if (!context || field != contextFieldRecipient || representation != representationUncompressed) return -EINVAL;
    qvx::Point point{};
    // Whether the point is on the curve is checked when the stream is opened.
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
        auto writer = qvx::ArchiveWriter::open({&*context->recipient, 1}, static_cast<unsigned>(workers),
                                               qvx::fileSink(underlying->file.get(), {}));
        if (!writer) return nullptr;
        stream->writer = std::move(*writer);
        return stream.release();
    });
}

ArchiveStream* openArchiveEncoderStream(ByteStream* underlying, void*, MessageCallback, std::uint64_t flags,
                                        int workers) {
    if (!underlying || !underlying->writer || flags != 0 || workers < 1) return nullptr;
    return new (std::nothrow) ArchiveStream{&*underlying->writer, workers};
}

int writePathList(ArchiveStream* archive, const PathList* list, const FieldKeySet* keys, std::string_view directory,
                  void*, MessageCallback, std::uint64_t flags, int workers) {
    if (!archive || !list || !keys || directory != "/" || flags != 0 || workers != archive->workers) return -EINVAL;
    return guarded(-ENOMEM, [&] {
        const auto written = archive->writer->write(*list, keys->fields, static_cast<unsigned>(workers));
        if (written) return 0;
        // The caller expects a negative errno value, which not every error of the library has.
        return written.error().code != 0 ? -written.error().code : -EIO;
    });
}

int closeArchiveStream(ArchiveStream* archive) {
    delete archive;
    return 0;
}

int closeByteStream(ByteStream* stream) {
    if (!stream) return 0;
    const std::unique_ptr<ByteStream> closed(stream);
    // Waits for the threads, which write to the file of the underlying stream.
    closed->writer.reset();
    const int file = closed->file.release();
    // A network file system may report only here that data could not be written.
    return file < 0 || ::close(file) == 0 ? 0 : -errno;
}

}  // namespace tarnwick
