#include "platform/archive_library.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

#include "qvx/write/path_list.h"
#include "unit/archive_builder.h"
#include "unit/clock_tick.h"
#include "unit/temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace tarnwick::test;

namespace {

using StreamHandle = std::unique_ptr<ByteStream, FreeWith<closeByteStream>>;
using EncoderHandle = std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>>;
using KeySetHandle = std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>>;
using ContextHandle = std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>>;
using ListHandle = std::unique_ptr<PathList, FreeWith<destroyPathList>>;

StreamHandle newFile(const fs::path& path) {
    return StreamHandle(openFileByteStream(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
}

PathList listOf(const Seen& paths) {
    PathList list;
    for (const auto& path : paths) list.append(*ListHandle(pathListForPath("/", path)));
    return list;
}

// All settings made; the point is on the curve unless `flipped` changes it.
ContextHandle newContext(std::uint8_t flipped = 0) {
    ContextHandle context(createEncryptionContext(profileHpke));
    Point point = *publicPointOf(recipient());
    point.back() ^= flipped;
    const auto* bytes = reinterpret_cast<const std::byte*>(point.data());
    EXPECT_EQ(setContextFieldBlob(context.get(), contextFieldRecipient, representationUncompressed, bytes, 65), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), contextFieldCompression, compressionZstd), 0);
    EXPECT_EQ(setContextFieldUInt(context.get(), contextFieldBlockSize, blockSize), 0);
    return context;
}

// Writes an archive. Returns its bytes, or none on a failure.
ByteVector write(const PathList& list, const fs::path& archive) {
    const auto context = newContext();
    const KeySetHandle keys(fieldKeySetFromString("UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL"));
    const auto output = newFile(archive);
    const StreamHandle sealed(openEncryptionOutputStream(output.get(), context.get(), streamFlags, 4));
    const EncoderHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, 4));
    if (writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4) != 0) return {};
    std::ifstream stream(archive, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class ArchiveLibrary : public testing::Test {
protected:
    [[nodiscard]] fs::path at(const std::string& name) const { return folder_.path / name; }
    std::string file(const std::string& name, std::string_view content) const {  // its path
        std::ofstream(at(name), std::ios::binary) << content;
        return at(name);
    }

    // What a complete and careful reading of an archive of these gives, the folder's own name left out.
    Seen roundTrip(const Seen& paths, CheckingSink&& sink = {}) {
        bytes_ = write(listOf(paths), at("archive.qvx"));
        const auto reader = openArchive(bytes_);
        EXPECT_TRUE(reader && (*reader)->readAll(sink));
        const auto own = folder_.path.string().substr(1) + '/';
        for (auto& entry : sink.seen)
            if (entry.starts_with(own)) entry.erase(0, own.size());
        return sink.seen;
    }

    TemporaryFolder folder_;
    ByteVector bytes_;
};

TEST_F(ArchiveLibrary, KeepsTheOrderOfTheListAndStoresDuplicatesOnce) {
    std::string noise(400000, '\0');
    std::ranges::generate(noise, [dice = std::mt19937(7)]() mutable { return static_cast<char>(dice()); });
    const auto small = file("small", "s"), path = file("noise", noise);
    fs::create_hard_link(path, at("linked"));
    fs::create_symlink("nowhere", at("link"));
    std::ofstream(at("sparse")).seekp(2500000) << "x";
    waitForTick();
    std::string version;
    std::getline(std::ifstream("/proc/version"), version);  // a file that says it is empty, and is not
    EXPECT_EQ(roundTrip({small, at("link"), path, at("linked"), at("sparse"), path, "/proc/version"}),
              (Seen{"small=s", "link=nowhere", "noise=" + noise, "linked=" + noise,
                    "sparse=" + std::string(2500000, '\0') + "x", "noise=" + noise, "proc/version=" + version + "\n"}));
    EXPECT_LT(bytes_.size(), 500000U);
}

TEST_F(ArchiveLibrary, WritesAnIndexOfManyParts) {
    const auto folder = std::string(200, 'd');
    fs::create_directory(at(folder));
    const auto one = file("f", "f"), other = file(folder + "/" + std::string(200, 'g'), "g");
    Seen paths;
    for (int i = 0; i < 3000; ++i) paths.insert(paths.end(), {one, other});
    EXPECT_EQ(roundTrip(paths).size(), 6000U);
}

TEST_F(ArchiveLibrary, HashesNoTebibytesOfHoles) {
    struct Sizes : CheckingSink {
        bool hole(std::uint64_t length) override { return length <= (std::uint64_t{1} << 41); }
        bool finish(const EntryTail& tail, const ContentReader&) override {
            seen.push_back(std::to_string(tail.totals->size) + (tail.digest ? " with a digest" : ""));
            return true;
        }
    };
    fs::resize_file(file("huge", ""), std::uintmax_t{1} << 41);
    EXPECT_EQ(roundTrip({at("huge")}, Sizes()), Seen{"2199023255552"});
}

TEST_F(ArchiveLibrary, FollowsNoUserToAnotherFolderOrFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for links of another user";
    const auto linkAs = [&](const char* target, uid_t owner) {
        fs::rename(at("logs"), at("old"));
        fs::create_directory_symlink(target, at("logs"));
        ASSERT_EQ(::lchown(at("logs").c_str(), owner, owner), 0);
    };
    const struct {
        const char* title;
        std::function<void()> change;  // between the listing and the reading
        bool stored;
        bool listed;  // when it is listed again after the change
    } rows[] = {
        {"nothing", [] {}, true, true},
        {"the log is rotated", [&] { fs::rename(at("logs/log"), at("logs/log.1")), file("logs/log", "new"); }, true,
         true},
        {"the folder becomes a user's link", [&] { linkAs("secret", 1000); }, false, false},
        {"the folder becomes root's link elsewhere", [&] { linkAs("secret", 0); }, false, true},
        {"the folder becomes root's link to itself", [&] { linkAs("old", 0); }, true, true},
        {"the folder becomes a user's link to itself", [&] { linkAs("old", 1000); }, false, false},
        {"another folder gets its name",
         [&] { fs::rename(at("logs"), at("old")), fs::rename(at("secret"), at("logs")); }, false, true},
        {"the file gets the name of another",
         [&] { fs::remove(at("logs/log")), fs::create_hard_link(at("secret/log"), at("logs/log")); }, false, true},
    };
    for (const auto& row : rows) {
        for (const char* name : {"logs", "old", "secret"}) fs::remove_all(at(name));
        for (const char* name : {"logs", "secret"}) fs::create_directory(at(name));
        file("logs/log", "own");
        file("secret/log", "secret");
        const auto list = listOf({at("logs/log")});
        row.change();
        const auto written = write(list, at("archive.qvx"));
        EXPECT_EQ(!written.empty(), row.stored) << row.title;
        EXPECT_EQ(ListHandle(pathListForPath("/", at("logs/log").native())) != nullptr, row.listed) << row.title;
    }
}

TEST_F(ArchiveLibrary, RefusesWhatIsNoRegularFileAndArgumentsThatDoNotFit) {
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink(at("target"), at("link"));
    for (const auto* name : {"fifo", "link", "."}) EXPECT_FALSE(newFile(at(name))) << name;
    const auto output = newFile(at("archive.qvx"));
    const auto context = newContext(), offCurve = newContext(1);
    const ContextHandle unset(createEncryptionContext(profileHpke));
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), context.get(), streamFlags, 0));
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), context.get(), 0, 4));
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), offCurve.get(), streamFlags, 4));
    EXPECT_FALSE(openEncryptionOutputStream(output.get(), unset.get(), streamFlags, 4));
    const StreamHandle sealed(openEncryptionOutputStream(output.get(), context.get(), streamFlags, 4));
    EXPECT_FALSE(openArchiveEncoderStream(output.get(), nullptr, nullptr, 0, 4)) << "not encrypted";
    const EncoderHandle encoder(openArchiveEncoderStream(sealed.get(), nullptr, nullptr, 0, 4));
    const KeySetHandle keys(fieldKeySetFromString("DAT"));
    const PathList list;
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 5), -EINVAL);
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4), 0);
    EXPECT_EQ(writePathList(encoder.get(), &list, keys.get(), "/", nullptr, nullptr, 0, 4), -EINVAL) << "twice";
}

}  // namespace
