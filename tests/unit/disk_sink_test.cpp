#include "qvx/extract/disk_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "unit/archive_builder.h"
#include "unit/temporary_folder.h"

using namespace tarnwick;
using namespace tarnwick::test;
namespace fs = std::filesystem;

namespace {

// A folder with the destination "in" and its neighbour "out", which nothing may touch.
class Extraction : public testing::Test {
protected:
    Extraction() {
        for (const auto* folder : {"in", "out"}) fs::create_directory(folder_.path / folder);
        std::ofstream(in_ / "../out/victim") << "untouched";
    }
    void TearDown() override {
        EXPECT_EQ(text("../out/victim"), "untouched");
        EXPECT_EQ(std::distance(fs::directory_iterator(in_ / "../out"), fs::directory_iterator()), 1);
        for (const auto& entry : fs::recursive_directory_iterator(in_))
            EXPECT_FALSE(entry.path().filename().string().starts_with(".qvx-")) << "a temporary file was left";
    }

    // Whether all went well, on disk and in the archive.
    bool extract(const ByteVector& bytes, bool salvage = false) {
        const FileDescriptor directory(open(in_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto opened = openArchive(bytes);
        DiskSink sink(directory.get(), {.keepIncomplete = salvage});
        const bool good = opened && (salvage ? (*opened)->salvage(sink, [](auto&) {}) : (*opened)->readAll(sink));
        sink.finishDirectories();
        return good && !sink.failed();
    }

    std::string text(const fs::path& name) {
        std::ifstream file(in_ / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    fs::file_type type(const fs::path& name) { return fs::symlink_status(in_ / name).type(); }

    TemporaryFolder folder_;
    const fs::path in_ = folder_.path / "in";
    ArchiveBuilder archive_;
};

TEST_F(Extraction, NeverGoesThroughALink) {
    fs::create_symlink("../out", in_ / "before");
    fs::create_symlink("../out/victim", in_ / "file");
    archive_.link("up", "../out").file("up/new", "x").link("victim", "../out/victim").file("victim", "replaced");
    archive_.link("in-place", "../out/victim").link("deep", "up").directory("deep/folder");
    archive_.link("dir", "../out").directory("dir").file("before/victim", "x").file("file", "mine");
    archive_.reference("linked", 10, 10, 4).file("behind", "still extracted");
    EXPECT_FALSE(extract(archive_.finish()));
    EXPECT_EQ(text("victim") + text("file") + text("linked") + text("behind"), "replacedmineminestill extracted");
    EXPECT_TRUE(type("victim") == fs::file_type::regular && type("file") == fs::file_type::regular);
    EXPECT_EQ(type("dir"), fs::file_type::directory);
}

TEST_F(Extraction, TakesThePlaceOfFilesButNotOfFullDirectories) {
    std::ofstream(in_ / "file") << "old";
    fs::create_hard_link(in_ / "file", in_ / "other-name");
    for (const auto* folder : {"empty", "full/inner"}) fs::create_directories(in_ / folder);
    ASSERT_EQ(mkfifo((in_ / "fifo").c_str(), 0600), 0);
    for (const auto* name : {"file", "empty", "full", "fifo"}) archive_.file(name, "new");
    EXPECT_FALSE(extract(archive_.finish()));
    for (const auto* name : {"file", "empty", "fifo"}) EXPECT_EQ(text(name), "new") << name;
    EXPECT_EQ(text("other-name"), "old");
    EXPECT_TRUE(fs::is_directory(in_ / "full/inner"));
}

TEST_F(Extraction, LinksAgainWhatWasLinkedAndCopiesWhatWasListedTwice) {
    archive_.directory("d").file("d/a", "content").reference("link", 1, 1, 7).reference("copy", 1, std::nullopt, 7);
    archive_.reference("d/a", 1, std::nullopt, 7).file("d/a", "later");
    archive_.reference("late-link", 1, 1, 7);  // what stands under the name of entry 1 is another file by now
    EXPECT_TRUE(extract(archive_.finish()));
    EXPECT_EQ(text("d/a"), "later");
    for (const auto* name : {"link", "copy", "late-link"}) EXPECT_EQ(text(name), "content") << name;
    EXPECT_FALSE(fs::equivalent(in_ / "link", in_ / "copy"));
}

// Threads make the files; what is left must be as if they had come one after the other.
TEST_F(Extraction, KeepsTheOrderOfWhatMeets) {
    std::map<std::string, std::string> left{{"full/file", "in the way of the next"}};
    for (unsigned i = 0; i < 600; ++i) {
        const std::string content = "content " + std::to_string(100 + i);
        const std::string name = "folder-" + std::to_string(i % 7) + "/file-" + std::to_string(i % 230);
        archive_.file(name, left[name] = content);
        if (i % 100 != 99) continue;
        const std::string extra = std::to_string(i);
        const unsigned number = i + i / 100 * 3;  // of the entry before
        archive_.reference("link-" + extra, number, number, content.size());
        left["link-" + extra] = content;
        archive_.file("file-" + extra, left["file-" + extra] = "in the way of the next");
        archive_.file("file-" + extra + "/below", "refused");
    }
    archive_.file("full/file", left["full/file"]).link("full", "refused");
    EXPECT_FALSE(extract(archive_.finish())) << "what is below a file is refused";
    for (const auto& [name, content] : left) EXPECT_EQ(text(name), content) << name;
    EXPECT_TRUE(fs::equivalent(in_ / "link-599", in_ / "folder-4/file-139"));
}

TEST_F(Extraction, LeavesNothingOfAReadingThatIsBrokenOff) {
    const FileDescriptor directory(open(in_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DiskSink sink(directory.get(), {.keepIncomplete = true});
    EntryHead head;
    head.type = EntryType::directory;
    head.path = "other/folder";
    EXPECT_TRUE(sink.begin(head) && sink.finish({}, {}));
    head.type = EntryType::file;
    head.path = "folder/file";
    EXPECT_TRUE(sink.begin(head) && sink.hole(100000));
    EXPECT_FALSE(fs::is_empty(in_ / "folder"));
    sink.finishDirectories();
    EXPECT_TRUE(fs::is_empty(in_ / "folder"));
}

TEST_F(Extraction, GivesNoNameToContentThatIsNotRight) {
    std::ofstream(in_ / "wrong") << "old";
    const auto bytes = archive_.begin("wrong").data("content").end({.digest = sha256("other")}, 7).finish();
    for (const bool salvage : {false, true}) {
        EXPECT_EQ(extract(bytes, salvage), salvage);
        EXPECT_EQ(text("wrong") + text("wrong.incomplete"), salvage ? "oldcontent" : "old");
    }
}

}  // namespace
