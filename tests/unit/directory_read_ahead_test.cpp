#include "qvx/directory_read_ahead.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "temporary_folder.h"

namespace tarnwick::qvx {
namespace {

namespace fs = std::filesystem;

class DirectoryReadAheadTest : public testing::Test {
protected:
    void addFile(const std::string& path) { folder_.write(path, "four"); }
    [[nodiscard]] fs::path root() const { return folder_.path; }

    // All paths below, a directory before what is in it.
    static void walk(DirectoryReadAhead& ahead, const std::string& path, std::vector<std::string>& paths) {
        const auto files = ahead.read(path);
        ASSERT_TRUE(files) << files.error().text;
        for (const FoundFile& file : *files) {
            EXPECT_EQ(file.error, 0);
            const std::string below = pathBelow(path, file.name);
            paths.push_back(below);
            if (S_ISDIR(file.mode)) walk(ahead, below, paths);
        }
    }

private:
    TemporaryFolder folder_;
};

// The names sort around the slash: "a", "a!", "a/b" and "a0" are in another order by bytes than depth first.
TEST_F(DirectoryReadAheadTest, ReadsEachDirectoryOfATreeOnce) {
    std::vector<std::string> expected;
    for (const std::string top : {"a", "a!", "a0", "b"}) {
        expected.push_back(root() / top);
        for (const std::string middle : {"c", "c-", "d"}) {
            fs::create_directories(root() / top / middle / "e");
            addFile(top + '/' + middle + "/file");
            for (const std::string below : {"", "/e", "/file"})
                expected.push_back((root() / top / middle).string() + below);
        }
    }
    for (int round = 0; round < 20; ++round) {
        DirectoryReadAhead ahead(4);
        std::vector<std::string> paths;
        walk(ahead, root(), paths);
        EXPECT_EQ(paths, expected);
    }
}

TEST_F(DirectoryReadAheadTest, ReportsWhyADirectoryCannotBeRead) {
    fs::create_directories(root() / "a");
    addFile("file");
    DirectoryReadAhead ahead(2);
    const auto files = ahead.read(root());
    ASSERT_TRUE(files);
    ASSERT_EQ(files->size(), 2U);
    EXPECT_EQ((*files)[1].size, 4U);
    const auto missing = ahead.read(root() / "missing");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, ENOENT);
    EXPECT_FALSE(ahead.read(root() / "file"));
}

}  // namespace
}  // namespace tarnwick::qvx
