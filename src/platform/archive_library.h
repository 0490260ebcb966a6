// The encrypted-archive library: writes archives that are sealed to the holder of a P-256 private key. A thin layer
// over qvx/archive_writer.h with the interface of a C library.
//
// Objects are plain pointers; null means "none". The caller releases each object with the destroy or close function of
// its type, which accepts null. A status is 0 for success or a negative errno value. Nothing here throws, prints or
// ends the process. An object is used by one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarnwick {

namespace qvx {
struct PathList;  // what goes into an archive, in order, duplicates kept
}
using qvx::PathList;

struct FieldKeySet;        // the fields to store for each entry
struct ByteStream;         // a file, or the encryption of what is written to one
struct EncryptionContext;  // the settings of an archive and its recipient
struct ArchiveStream;      // the encoder of entries

using MessageCallback = int (*)(void* messageData, int message);  // never called

// The numbers of the context fields, and their values.
inline constexpr int contextFieldCompression = 3;     // unsigned: the compression identifier
inline constexpr int contextFieldBlockSize = 4;       // unsigned: bytes
inline constexpr int contextFieldRecipient = 10;      // blob: the recipient's public point
inline constexpr int representationUncompressed = 1;  // of that point: 0x04, X, Y (65 bytes)

PathList* newPathList();

// A list of one entry: `path`, relative to `directory` unless it begins with "/". None for an empty path, a path that
// does not exist, one that is neither a regular file, a directory nor a symbolic link (the last component is not
// followed), and one that leads through a link of a user other than root and the caller. A path with ".." is resolved
// first.
PathList* pathListForPath(std::string_view directory, std::string_view path);

// Appends the entries of `source` to `target`; `source` is unchanged.
int mergePathLists(PathList* target, const PathList* source);
void destroyPathList(PathList* list);

// Keys are three letters, separated by commas. None for an unknown key, or one that occurs twice.
FieldKeySet* fieldKeySetFromString(std::string_view keys);
void destroyFieldKeySet(FieldKeySet* keys);

// Opens a regular file for writing; a symbolic link in the last component is not followed. The mode does not depend on
// the umask. None on failure.
ByteStream* openFileByteStream(const char* path, int openFlags, mode_t mode);

// Profile 3 is the only one: HPKE base mode with DHKEM(P-256, HKDF-SHA256), HKDF-SHA256 and AES-256-GCM, one
// recipient, no signature.
EncryptionContext* createEncryptionContext(int profile);
int setContextFieldBlob(EncryptionContext* context, int field, int representation, const std::byte* bytes,
                        std::size_t length);
int setContextFieldUInt(EncryptionContext* context, int field, std::uint64_t value);
void destroyEncryptionContext(EncryptionContext* context);

// Opens the stream that cuts what is written into blocks, compresses and seals them, and writes them to `underlying` in
// order. The caller keeps `underlying`, a file, which must outlive the new stream; threads of the new stream write to
// it until the new stream is closed. Exactly `workers` threads compress and seal, each with about 7 MiB of memory.
// `flags` must have bits 63 and 62 and no other. None for fewer than 1 worker, other flags, a context that lacks a
// setting, and a point that is not on the curve.
ByteStream* openEncryptionOutputStream(ByteStream* underlying, const EncryptionContext* context, std::uint64_t flags,
                                       int workers);

// `underlying` must be an encryption stream. `workers`, at least 1, is the number of threads that read entries;
// writePathList() must get the same number. `flags` must be 0, here and below.
ArchiveStream* openArchiveEncoderStream(ByteStream* underlying, void* messageData, MessageCallback callback,
                                        std::uint64_t flags, int workers);

// Reads every entry of the list from the disk and completes the archive. When it returns 0, every byte has been given
// to write(2). A file that shrinks or grows while it is read is stored as it was read. A file that is there but cannot
// be read, wholly or in part (EIO, EACCES), is stored as far as possible and marked as incomplete; that is not a
// failure. A file that has vanished or is no longer what the list says is a failure. A file is opened only in the
// directory in which it was listed, even if another directory has that path by now. If the name in that directory
// belongs to another file by now, that file is stored, because logs are rotated; but it must be of the same kind, on
// the same device, and without a second link. Exactly `workers` threads read; a number other than that of the encoder
// gives -EINVAL, and so does a `directory` other than "/". An encoder can write only one path list.
int writePathList(ArchiveStream* archive, const PathList* list, const FieldKeySet* keys, std::string_view directory,
                  void* messageData, MessageCallback callback, std::uint64_t flags, int workers);

// Close and release. A stream that is closed before its archive is complete leaves a truncated archive, which readers
// refuse.
int closeArchiveStream(ArchiveStream* archive);
int closeByteStream(ByteStream* stream);

}  // namespace tarnwick
