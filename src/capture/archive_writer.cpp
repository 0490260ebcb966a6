#include "capture/archive_writer.h"

#include <fcntl.h>

#include <array>
#include <memory>

#include "base/fatal_error.h"
#include "base/handle.h"
#include "base/quoted_path.h"
#include "config/archive_public_key.h"
#include "log/execution_log.h"
#include "platform/archive_library.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

constexpr auto rootDirectory = "/";
constexpr auto entryFields = "UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL";
constexpr int encryptionProfile = 3;
constexpr std::uint64_t compressionAlgorithm = 2049;
constexpr std::uint64_t compressionBlockSize = 1048576;
constexpr std::uint64_t encryptionStreamFlags = 0xC000000000000000;
constexpr int workerThreads = 4;

// Everything that one archive needs, in the reverse of the order in which it must be released: the encoder uses the
// encryption stream, which uses the file, and only then may key set, list and context be released. Errors of the closes
// are ignored on purpose: writePathList has given everything to write(2) before it returns success.
struct ArchiveInProgress {
    std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>> context;
    std::unique_ptr<PathList, FreeWith<destroyPathList>> paths;
    std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>> keys;
    std::unique_ptr<ByteStream, FreeWith<closeByteStream>> file;
    std::unique_ptr<ByteStream, FreeWith<closeByteStream>> encryption;
    std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>> encoder;
};

struct RecipientPoint {
    std::array<std::byte, 256> bytes{};
    std::uint64_t length = 0;
};

std::string listPaths(ArchiveInProgress& archive, const FilesList& files) {
    archive.paths.reset(newPathList());
    for (const auto& file : files) {
        const std::unique_ptr<PathList, FreeWith<destroyPathList>> entry(pathListForPath(rootDirectory, file));
        if (!entry) return "unable to create sublist";
        if (mergePathLists(archive.paths.get(), entry.get()) != 0) return "unable to merge path lists";
    }
    return {};
}

bool setUpContext(EncryptionContext* context, const RecipientPoint& recipient) {
    return setContextFieldBlob(context, contextFieldRecipient, representationUncompressed, recipient.bytes.data(),
                               recipient.length) >= 0 &&
           setContextFieldUInt(context, contextFieldCompression, compressionAlgorithm) >= 0 &&
           setContextFieldUInt(context, contextFieldBlockSize, compressionBlockSize) >= 0;
}

// Returns the message of the first step that failed, empty when the archive was written.
std::string writeArchive(const FilesList& files, const std::string& publicKeyText, const fs::path& archivePath) {
    ArchiveInProgress archive;
    if (auto errorMessage = listPaths(archive, files); !errorMessage.empty()) return errorMessage;

    RecipientPoint recipient;
    if (!parseArchivePublicKey(publicKeyText, recipient.bytes.data(), recipient.length)) return "failed to parse key";

    archive.context.reset(createEncryptionContext(encryptionProfile));
    if (!archive.context) return "encryptFile: Context creation failed";
    if (!setUpContext(archive.context.get(), recipient)) return "Context setup failed";

    archive.keys.reset(fieldKeySetFromString(entryFields));
    if (!archive.keys) return "couldnt create keyset";

    archive.file.reset(openFileByteStream(archivePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!archive.file) return "Error creating destination file";

    archive.encryption.reset(
        openEncryptionOutputStream(archive.file.get(), archive.context.get(), encryptionStreamFlags, workerThreads));
    if (!archive.encryption) return "Error calling QVXEncryptionOutputStreamOpen";

    archive.encoder.reset(openArchiveEncoderStream(archive.encryption.get(), nullptr, nullptr, 0, workerThreads));
    if (!archive.encoder) return "Error creating encoder";

    if (writePathList(archive.encoder.get(), archive.paths.get(), archive.keys.get(), rootDirectory, nullptr, nullptr,
                      0, workerThreads) != 0)
        return "error when writing pathlist to archive";
    return {};
}

}  // namespace

void encryptFile(const FilesList& files, const std::string& publicKeyText, const fs::path& archivePath) {
    const std::string errorMessage = writeArchive(files, publicKeyText, archivePath);
    if (errorMessage.empty()) return;
    if (fs::is_regular_file(archivePath) && !fs::remove(archivePath))
        logWarning("error when cleaning up " + quotedPath(archivePath));
    raiseFatal(errorMessage);
}

}  // namespace tarnwick
