// The encrypted-archive library: writing one archive, sealed to the holder of one P-256 private key.
// The format is described in docs/qvx-format.md; reading is in archive_reader.h.
//
// Objects are handed out as plain pointers and given back to the function named for it; null stands for "none" and is
// accepted by every function that takes an object back. A status is 0 for success; a negative one is an errno value
// with its sign turned. Nothing here throws, prints or ends the process. An object is used by one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tarnwick {

namespace qvx {
struct PathList;         // what goes into an archive, in order, duplicates kept
struct IncompleteEntry;  // which entry, and why (qvx/write/archive_encoder.h)
}  // namespace qvx
using qvx::IncompleteEntry;
using qvx::PathList;

struct FieldKeySet;        // which fields every entry carries
struct ByteStream;         // a file, or the encryption on its way to one
struct EncryptionContext;  // the settings of an archive and its recipient
struct ArchiveStream;      // the encoder of entries

using MessageCallback = int (*)(void* messageData, int message);  // the library never calls it

// Numbers of context fields, and what they take.
inline constexpr int contextFieldCompression = 3;     // unsigned: the compression identifier
inline constexpr int contextFieldBlockSize = 4;       // unsigned: bytes
inline constexpr int contextFieldRecipient = 10;      // blob: the recipient's public point
inline constexpr int representationUncompressed = 1;  // of that blob: 0x04, X, Y (65 bytes)

PathList* newPathList();

// A list of one entry: `path`, taken relative to `directory` when it does not begin with "/". None for an empty path,
// a path that does not exist, one that is neither a regular file, a directory nor a symbolic link (the last component
// is not followed), and one that leads through a link of another user than root and the caller. A path with ".." is
// listed as the real one.
PathList* pathListForPath(std::string_view directory, std::string_view path);

// Adds the entries of `source` behind those of `target`; `source` keeps its own.
int mergePathLists(PathList* target, const PathList* source);
void destroyPathList(PathList* list);

// Keys are three letters, separated by commas. None for a key that the format does not know, or one named twice.
FieldKeySet* fieldKeySetFromString(std::string_view keys);
void destroyFieldKeySet(FieldKeySet* keys);

// Opens a regular file for writing, never through a symbolic link in its last component; the mode is set whatever the
// umask. None on failure.
ByteStream* openFileByteStream(const char* path, int openFlags, mode_t mode);

// Profile 3 is the only one: HPKE base mode with DHKEM(P-256, HKDF-SHA256), HKDF-SHA256 and AES-256-GCM, one
// recipient, no signature.
EncryptionContext* createEncryptionContext(int profile);
int setContextFieldBlob(EncryptionContext* context, int field, int representation, const std::byte* bytes,
                        std::size_t length);
int setContextFieldUInt(EncryptionContext* context, int field, std::uint64_t value);
void destroyEncryptionContext(EncryptionContext* context);

// The stream that cuts what is written into blocks, compresses and seals them, and writes them to `underlying` in
// order. `underlying` stays the caller's, is used from another thread until the new stream is closed, and must outlive
// it. Exactly `workers` threads compress and seal, each with about 7 MiB of memory; fewer than 1 is refused, and so is
// a point that is not on the curve.
ByteStream* openEncryptionOutputStream(ByteStream* underlying, const EncryptionContext* context, std::uint64_t flags,
                                       int workers);

// `underlying` must be an encryption stream. An entry is encoded (its metadata, the digest of a small content) by the
// thread that reads it, so `workers`, at least 1, is the number that writePathList() must be given, too.
ArchiveStream* openArchiveEncoderStream(ByteStream* underlying, void* messageData, MessageCallback callback,
                                        std::uint64_t flags, int workers);

// Reads every entry of the list from the disk and completes the archive. When it answers 0, everything that belongs to
// the archive has been written, so that a failing close cannot hide a loss. A file that shrinks or grows while it is
// read is stored as it was read. One that is there and cannot be read, wholly or in part (EIO, EACCES), is stored as
// far as it can be read, marked as incomplete, and no failure; one that has vanished or is no longer what the list says
// makes the status nonzero. A file is read from the directory in which it was listed, and from no other that has got
// its name since: another file of this name is taken for a rotated log there. Exactly `workers` threads read; a number
// other than the encoder's is refused with -EINVAL. An encoder takes one path list.
int writePathList(ArchiveStream* archive, const PathList* list, const FieldKeySet* keys, std::string_view directory,
                  void* messageData, MessageCallback callback, std::uint64_t flags, int workers);

// The entries that writePathList() marked as incomplete, ascending; the encoder's.
std::span<const IncompleteEntry> incompleteEntries(const ArchiveStream* archive);

// Close and release. Closing a stream whose archive was not completed leaves a cut archive, which every reader refuses.
int closeArchiveStream(ArchiveStream* archive);
int closeByteStream(ByteStream* stream);

}  // namespace tarnwick
