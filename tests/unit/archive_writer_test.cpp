// The archive writer against a second implementation of the archive library, one that fails at a chosen operation and
// records how it was called.
#include "capture/archive_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "base/fatal_error.h"
#include "platform/archive/archive_library.h"
#include "temporary_folder.h"

namespace tarnwick {

// What the handles point to is never looked at but for this.
struct PathList {
    const char* name;
};
struct ByteStream {
    const char* name;
};
struct FieldKeySet {};
struct EncryptionContext {};
struct ArchiveStream {};

namespace {

std::string failingCall;  // the operation, with its arguments, that fails
std::vector<std::string> calls;
PathList list{"list"}, sublist{"sublist"};
FieldKeySet keySet;
ByteStream fileStream{"file"}, encryptionStream{"encryption"};
EncryptionContext encryptionContext;
ArchiveStream archiveStream;

template <typename... Arguments>
bool record(const Arguments&... arguments) {
    std::ostringstream call;
    ((call << arguments << ' '), ...);
    calls.push_back(call.str());
    return failingCall.empty() || calls.back().find(failingCall) == std::string::npos;
}

}  // namespace

PathList* newPathList() { return record("newPathList") ? &list : nullptr; }
PathList* pathListForPath(std::string_view directory, std::string_view path) {
    return record("pathListForPath", directory, path) ? &sublist : nullptr;
}
int mergePathLists(PathList* target, const PathList* source) {
    return record("merge", target->name, source->name) ? 0 : 1;
}
void destroyPathList(PathList* paths) { record("destroyPathList", paths->name); }
FieldKeySet* fieldKeySetFromString(std::string_view keys) { return record("keys", keys) ? &keySet : nullptr; }
void destroyFieldKeySet(FieldKeySet*) { record("destroyFieldKeySet"); }
ByteStream* openFileByteStream(const char* path, int flags, mode_t mode) {
    if (!record("openFile", flags == (O_WRONLY | O_CREAT | O_TRUNC), mode)) return nullptr;
    std::ofstream(path) << "partial";
    return &fileStream;
}
EncryptionContext* createEncryptionContext(int profile) {
    return record("context", profile) ? &encryptionContext : nullptr;
}
int setContextFieldBlob(EncryptionContext*, int field, int representation, const std::byte* bytes, std::size_t length) {
    return record("blob", field, representation, length, std::to_integer<int>(bytes[0])) ? 1 : -1;
}
int setContextFieldUInt(EncryptionContext*, int field, std::uint64_t value) {
    return record("uint", field, value) ? 0 : -1;
}
void destroyEncryptionContext(EncryptionContext*) { record("destroyContext"); }
ByteStream* openEncryptionOutputStream(ByteStream* under, const EncryptionContext*, std::uint64_t flags, int workers) {
    return record("openEncryption", under->name, flags, workers) ? &encryptionStream : nullptr;
}
ArchiveStream* openArchiveEncoderStream(ByteStream* under, void* data, MessageCallback callback, std::uint64_t flags,
                                        int workers) {
    return record("openEncoder", under->name, data == nullptr && callback == nullptr, flags, workers) ? &archiveStream
                                                                                                      : nullptr;
}
int writePathList(ArchiveStream*, const PathList* paths, const FieldKeySet*, std::string_view directory, void*,
                  MessageCallback, std::uint64_t flags, int workers) {
    return record("write", paths->name, directory, flags, workers) ? 0 : -5;
}
int closeArchiveStream(ArchiveStream*) { return record("closeEncoder") ? 0 : -1; }
int closeByteStream(ByteStream* stream) { return record("close", stream->name) ? 0 : -1; }

namespace {

const std::string key =
    "ecdsa-sha2-nistp256 "
    "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBP5Jx2KFbJyR0xLYVZ6V4TKgO5vOPEuKGlAyBJtUsXh"
    "Xl4dDbUPFhH4PmvB4zKiHnmzMmnyGAbcbTSlcp3XSLqA=";

class ArchiveWriter : public testing::Test {
protected:
    // The message with which writing ends; empty when it succeeds.
    std::string write(const std::string& failing, const std::string& keyText = key) {
        calls.clear();
        failingCall = failing;
        std::ofstream(archive()) << "an older archive";
        try {
            encryptFile({"/a", ""}, keyText, archive());
            return {};
        } catch (const FatalError& error) {
            EXPECT_FALSE(std::filesystem::exists(archive())) << failing;
            return error.what();
        }
    }
    [[nodiscard]] std::filesystem::path archive() const { return folder_.path / "archive.qvx"; }

    TemporaryFolder folder_;
};

TEST_F(ArchiveWriter, CallsTheLibraryInItsFixedOrder) {
    const std::vector<std::string> expected = {"newPathList ",
                                               "pathListForPath / /a ",
                                               "merge list sublist ",
                                               "destroyPathList sublist ",
                                               "pathListForPath /  ",
                                               "merge list sublist ",
                                               "destroyPathList sublist ",
                                               "context 3 ",
                                               "blob 10 1 65 4 ",
                                               "uint 3 2049 ",
                                               "uint 4 1048576 ",
                                               "keys UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL ",
                                               "openFile 1 420 ",
                                               "openEncryption file 13835058055282163712 4 ",
                                               "openEncoder encryption 1 0 4 ",
                                               "write list / 0 4 ",
                                               "closeEncoder ",
                                               "close encryption ",
                                               "close file ",
                                               "destroyFieldKeySet ",
                                               "destroyPathList list ",
                                               "destroyContext "};
    EXPECT_EQ(write(""), "");
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(write("close"), "");  // what closing reports does not count
}

TEST_F(ArchiveWriter, EndsWithTheMessageOfTheFirstStepThatFailsAndLeavesNoFile) {
    const std::pair<const char*, const char*> failures[] = {
        {"pathListForPath", "unable to create sublist"},
        {"merge", "unable to merge path lists"},
        {"context", "encryptFile: Context creation failed"},
        {"blob", "Context setup failed"},
        {"uint 3", "Context setup failed"},
        {"uint 4", "Context setup failed"},
        {"keys", "couldnt create keyset"},
        {"openFile", "Error creating destination file"},
        {"openEncryption", "Error calling QVXEncryptionOutputStreamOpen"},
        {"openEncoder", "Error creating encoder"},
        {"write", "error when writing pathlist to archive"},
    };
    for (const auto& [failing, message] : failures) {
        EXPECT_EQ(write(failing), message);
        const auto failed = std::find_if(calls.begin(), calls.end(),
                                         [&](const auto& call) { return call.find(failing) != std::string::npos; });
        ASSERT_NE(failed, calls.end()) << failing;
        for (auto after = failed + 1; after != calls.end(); ++after)
            EXPECT_TRUE(after->starts_with("close") || after->starts_with("destroy")) << failing << ": " << *after;
        EXPECT_EQ(calls.back().substr(0, 7), "destroy") << failing;
    }
    EXPECT_EQ(write("", "ecdsa-sha2-nistp256 AAAA"), "failed to parse key");
    EXPECT_EQ(calls.back(), "destroyPathList list ");
}

}  // namespace

}  // namespace tarnwick
