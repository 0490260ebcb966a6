#include "qvx/disk_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "unit/archive_builder.h"

using namespace tarnwick;
using namespace tarnwick::test;
namespace fs = std::filesystem;

namespace {

EVP_PKEY* recipient() {
    static const KeyHandle key = generatePrivateKey();
    return key.get();
}

// A folder with the destination "in" and its neighbour "out", which nothing may touch.
class Extraction : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "extract.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
        fs::create_directories(root_ / "in");
        fs::create_directories(root_ / "out");
        std::ofstream(root_ / "out/victim") << "untouched";
    }
    void TearDown() override {
        EXPECT_EQ(text("../out/victim"), "untouched");
        EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "out"), fs::directory_iterator()), 1);
        EXPECT_EQ(temporaries(), 0) << "a temporary file was left";
        fs::current_path("/");
        fs::remove_all(root_);
    }

    // Whether all went well, on disk and in the archive.
    bool extract(const ByteVector& bytes) {
        const FileDescriptor directory(open((root_ / "in").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto reader = openArchive(bytes, recipient(), fault_);
        DiskSink sink(directory.get(), false);
        const bool good = reader && reader->readAll(sink, fault_);
        sink.finishDirectories();
        return good && !sink.failed();
    }
    bool salvage(const ByteVector& bytes) {
        const FileDescriptor directory(open((root_ / "in").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto reader = openArchive(bytes, recipient(), fault_);
        DiskSink sink(directory.get(), true);
        return reader->salvage(sink, [](const ReadFault&) {});
    }

    std::string text(const fs::path& name) {
        std::ifstream file(root_ / "in" / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    struct stat status(const fs::path& name) {
        struct stat status {};
        EXPECT_EQ(lstat((root_ / "in" / name).c_str(), &status), 0) << name;
        return status;
    }
    long temporaries() {
        return std::count_if(fs::recursive_directory_iterator(root_ / "in"), fs::recursive_directory_iterator(),
                             [](const auto& entry) { return entry.path().filename().string().starts_with(".qvx-"); });
    }

    fs::path root_;
    ReadFault fault_;
    ArchiveBuilder archive_{recipient()};
};

TEST_F(Extraction, NeverGoesThroughALink) {
    archive_.link("up", "../out");
    archive_.file("up/new", "x");
    archive_.link("victim", "../out/victim");
    archive_.file("victim", "replaced");
    archive_.link("in-place", "../out/victim");
    archive_.link("deep", "up");
    archive_.directory("deep/folder");
    archive_.link("dir", "../out");
    archive_.directory("dir");
    archive_.file("behind", "still extracted");
    EXPECT_FALSE(extract(archive_.finish()));
    EXPECT_EQ(text("victim"), "replaced");
    EXPECT_EQ(text("behind"), "still extracted");
    EXPECT_TRUE(S_ISREG(status("victim").st_mode));
    EXPECT_TRUE(S_ISDIR(status("dir").st_mode));
}

TEST_F(Extraction, NeverGoesThroughALinkThatStoodThereBefore) {
    fs::create_symlink("../out", root_ / "in/folder");
    fs::create_symlink("../out/victim", root_ / "in/file");
    archive_.file("folder/victim", "x");
    archive_.file("file", "mine");
    archive_.reference("linked", 1, 1, 4);
    EXPECT_FALSE(extract(archive_.finish()));
    EXPECT_EQ(text("file"), "mine");
    EXPECT_EQ(text("linked"), "mine");
}

TEST_F(Extraction, TakesThePlaceOfFilesButNotOfFullDirectories) {
    std::ofstream(root_ / "in/file") << "old";
    fs::create_hard_link(root_ / "in/file", root_ / "in/other-name");
    fs::create_directories(root_ / "in/empty");
    fs::create_directories(root_ / "in/full/inner");
    ASSERT_EQ(mkfifo((root_ / "in/fifo").c_str(), 0600), 0);
    for (const char* name : {"file", "empty", "full", "fifo"}) archive_.file(name, "new");
    EXPECT_FALSE(extract(archive_.finish()));
    for (const char* name : {"file", "empty", "fifo"}) EXPECT_EQ(text(name), "new") << name;
    EXPECT_EQ(text("other-name"), "old");
    EXPECT_TRUE(fs::is_directory(root_ / "in/full/inner"));
}

TEST_F(Extraction, LinksAgainWhatWasLinkedAndCopiesWhatWasListedTwice) {
    archive_.file("a", "content");
    archive_.reference("link", 0, 0, 7);
    archive_.reference("copy", 0, std::nullopt, 7);
    archive_.reference("a", 0, std::nullopt, 7);
    archive_.file("a", "later");
    archive_.reference("late-link", 0, 0, 7);  // what stands under the name of entry 0 is another file by now
    EXPECT_TRUE(extract(archive_.finish())) << fault_.what;
    EXPECT_EQ(text("a"), "later");
    for (const char* name : {"link", "copy", "late-link"}) EXPECT_EQ(text(name), "content") << name;
    EXPECT_NE(status("link").st_ino, status("copy").st_ino);
    EXPECT_NE(status("late-link").st_ino, status("a").st_ino);
}

TEST_F(Extraction, GivesHardLinksOneInode) {
    archive_.directory("d");
    archive_.file("d/a", "content");
    archive_.directory("e");
    archive_.reference("e/b", 1, 1, 7);
    archive_.reference("d/c", 1, 1, 7);
    EXPECT_TRUE(extract(archive_.finish())) << fault_.what;
    EXPECT_EQ(status("d/a").st_ino, status("e/b").st_ino);
    EXPECT_EQ(status("d/a").st_nlink, 3U);
    EXPECT_EQ(status("d").st_mtim.tv_sec, 1700000000);
    EXPECT_EQ(status("d").st_mtim.tv_nsec, 123456789);
}

TEST_F(Extraction, GivesNoNameToContentThatIsNotRight) {
    std::ofstream(root_ / "in/wrong") << "old";
    archive_.begin(archive_.head("wrong"));
    archive_.record(RecordType::data, bytesOf("content"));
    archive_.end(tailOf(sha256("other"), SparseSum{7, 0}), 7);
    const ByteVector bytes = archive_.finish();
    EXPECT_FALSE(extract(bytes));
    EXPECT_EQ(text("wrong"), "old");

    EXPECT_TRUE(salvage(bytes));
    EXPECT_EQ(text("wrong"), "old");
    EXPECT_EQ(text("wrong.incomplete"), "content");
}

TEST_F(Extraction, OfEveryDamageLeavesOnlyWhatIsRight) {
    archive_.file("one", "first content");
    archive_.endBlock();
    archive_.reference("two", 0, 0, 13);
    archive_.file("three", "third content");
    const ByteVector bytes = archive_.finish();
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        ByteVector damaged = bytes;
        damaged[at] ^= 0x10;
        EXPECT_FALSE(extract(damaged)) << at;
        for (const auto& [name, content] : std::map<std::string, std::string>{
                 {"one", "first content"}, {"two", "first content"}, {"three", "third content"}})
            EXPECT_EQ(text(name), fs::exists(root_ / "in" / name) ? content : "") << at;
        fs::remove_all(root_ / "in");
        fs::create_directory(root_ / "in");
    }
}

TEST_F(Extraction, KeepsHolesAndSizes) {
    const auto entry = [&](const char* name, std::uint64_t before, std::string_view data, std::uint64_t behind) {
        const std::string content = std::string(before, '\0') + std::string(data) + std::string(behind, '\0');
        archive_.begin(archive_.head(name));
        const auto hole = [&](std::uint64_t length) {
            ByteVector payload;
            for (; length >= 0x80; length >>= 7) payload.push_back(static_cast<std::uint8_t>(length | 0x80));
            payload.push_back(static_cast<std::uint8_t>(length));
            archive_.record(RecordType::hole, payload);
        };
        if (before) hole(before);
        if (!data.empty()) archive_.record(RecordType::data, bytesOf(data));
        if (behind) hole(behind);
        archive_.end(tailOf(sha256(content), SparseSum{content.size(), (before ? 1U : 0U) + (behind ? 1U : 0U)}),
                     content.size());
        return content;
    };
    const std::string both = entry("both", 3 << 20, "data", 5 << 20);
    const std::string only = entry("only", 0, "", 1 << 20);
    EXPECT_TRUE(extract(archive_.finish())) << fault_.what;
    EXPECT_EQ(text("both"), both);
    EXPECT_EQ(text("only"), only);
    EXPECT_LT(status("both").st_blocks, 64);
}

}  // namespace
