// The archive writer against a second implementation of the archive library, one that fails at a chosen operation and
// records how it was called.
#include "capture/archive_writer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "base/fatal_error.h"
#include "platform/archive/archive_library.h"
#include "temporary_folder.h"

namespace tarnwick {

// What the handles point to is never looked at but for this.
struct PathList {};
struct ByteStream {
    std::string name;
};
struct FieldKeySet {};
struct EncryptionContext {};
struct ArchiveStream {};

namespace {

std::string failingCall;
std::string calls;
PathList list, sublist;
FieldKeySet keySet;
ByteStream fileStream{"file"}, encryptionStream{"encryption"};
EncryptionContext encryptionContext;
ArchiveStream archiveStream;

bool record(const std::string& call) {
    calls += call + ' ';
    return call != failingCall;
}

template <typename Object>
Object* made(const std::string& call, Object& object) {
    return record(call) ? &object : nullptr;
}

}  // namespace

PathList* newPathList() { return &list; }
PathList* pathListForPath(std::string_view, std::string_view) { return made("sublist", sublist); }
int mergePathLists(PathList*, const PathList*) { return record("merge") ? 0 : 1; }
void destroyPathList(PathList* paths) { record(paths == &list ? "~list" : "~sublist"); }
FieldKeySet* fieldKeySetFromString(std::string_view) { return made("keys", keySet); }
void destroyFieldKeySet(FieldKeySet*) { record("~keys"); }
ByteStream* openFileByteStream(const char* path, int, mode_t) {
    if (record("file")) std::ofstream(path) << "partial";
    return failingCall == "file" ? nullptr : &fileStream;
}
EncryptionContext* createEncryptionContext(int) { return made("context", encryptionContext); }
int setContextFieldBlob(EncryptionContext*, int, int, const std::byte*, std::size_t) { return record("blob") ? 1 : -1; }
int setContextFieldUInt(EncryptionContext*, int field, std::uint64_t) {
    return record("field" + std::to_string(field)) ? 0 : -1;
}
void destroyEncryptionContext(EncryptionContext*) { record("~context"); }
ByteStream* openEncryptionOutputStream(ByteStream*, const EncryptionContext*, std::uint64_t, int) {
    return made("encryption", encryptionStream);
}
ArchiveStream* openArchiveEncoderStream(ByteStream*, void*, MessageCallback, std::uint64_t, int) {
    return made("encoder", archiveStream);
}
int writePathList(ArchiveStream*, const PathList*, const FieldKeySet*, std::string_view, void*, MessageCallback,
                  std::uint64_t, int) {
    return record("write") ? 0 : -5;
}
int closeArchiveStream(ArchiveStream*) { return record("~encoder") ? 0 : -1; }
int closeByteStream(ByteStream* stream) { return record("~" + stream->name) ? 0 : -1; }

namespace {

TEST(ArchiveWriter, EndsWithTheMessageOfTheFirstStepThatFailsAndLeavesNoFile) {
    const std::string key =
        "ecdsa-sha2-nistp256 "
        "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBP5Jx2KFbJyR0xLYVZ6V4TKgO5vOPEuKGlAyBJtUsXh"
        "Xl4dDbUPFhH4PmvB4zKiHnmzMmnyGAbcbTSlcp3XSLqA=";
    const TemporaryFolder folder;
    const auto archive = folder.path / "archive.qvx";
    const struct {
        std::string failing, message, released;  // backwards, whatever was made before
    } cases[] = {
        {"sublist", "unable to create sublist", "~list "},
        {"merge", "unable to merge path lists", "~sublist ~list "},
        {"context", "encryptFile: Context creation failed", "~list "},
        {"blob", "Context setup failed", "~list ~context "},
        {"field3", "Context setup failed", "~list ~context "},
        {"field4", "Context setup failed", "~list ~context "},
        {"keys", "couldnt create keyset", "~list ~context "},
        {"file", "Error creating destination file", "~keys ~list ~context "},
        {"encryption", "Error calling QVXEncryptionOutputStreamOpen", "~file ~keys ~list ~context "},
        {"encoder", "Error creating encoder", "~encryption ~file ~keys ~list ~context "},
        {"write", "error when writing pathlist to archive", "~encoder ~encryption ~file ~keys ~list ~context "},
        {"~encoder", "", "~encryption ~file ~keys ~list ~context "},  // what closing reports does not count
    };
    for (const auto& [failing, message, released] : cases) {
        calls.clear();
        failingCall = failing;
        std::ofstream(archive) << "an older archive";
        std::string said;
        try {
            encryptFile({"/a"}, key, archive);
        } catch (const FatalError& error) {
            said = error.what();
        }
        EXPECT_EQ(said, message) << failing;
        EXPECT_TRUE(calls.ends_with(' ' + failing + ' ' + released) || calls == failing + ' ' + released) << calls;
        EXPECT_EQ(std::filesystem::exists(archive), message.empty()) << failing;
    }
}

}  // namespace

}  // namespace tarnwick
