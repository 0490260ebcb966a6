#include "base/directory_walk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "temporary_folder.h"

namespace fs = std::filesystem;
using tarnwick::listDirectory;

namespace {

class DirectoryWalk : public testing::Test {
protected:
    void file(const fs::path& name) { std::ofstream(root_ / name) << "x"; }

    std::vector<std::string> walk(bool recurse, bool includeDirectories) {
        std::vector<std::string> names;
        for (const auto& path : listDirectory(root_, recurse, includeDirectories))
            names.push_back(path.lexically_relative(root_));
        std::sort(names.begin(), names.end());
        return names;
    }

    tarnwick::TemporaryFolder temporary_;
    const fs::path root_ = temporary_.path;
};

using Names = std::vector<std::string>;

TEST_F(DirectoryWalk, FollowsLinksAndSkipsWhatIsNeitherFileNorDirectory) {
    file("plain");
    fs::create_directories(root_ / "folder/inner");
    file("folder/inner/deep");
    fs::create_symlink("plain", root_ / "to-file");
    fs::create_symlink("folder", root_ / "to-folder");
    fs::create_symlink("nowhere", root_ / "dangling");

    EXPECT_EQ(walk(false, false), (Names{"plain", "to-file"}));
    EXPECT_EQ(walk(false, true), (Names{"folder", "plain", "to-file", "to-folder"}));
    EXPECT_EQ(walk(true, false), (Names{"folder/inner/deep", "plain", "to-file", "to-folder/inner/deep"}));
}

TEST_F(DirectoryWalk, GivesNothingForAFileOrAMissingPath) {
    file("plain");
    EXPECT_TRUE(listDirectory(root_ / "plain", true, true).empty());
    EXPECT_TRUE(listDirectory(root_ / "missing", true, true).empty());
}

TEST_F(DirectoryWalk, PassesOnAnErrorBelowThatIsNotAPermission) {
    // A link that leads to itself cannot be asked for its status: ELOOP, which would leave the list incomplete.
    fs::create_directory(root_ / "folder");
    fs::create_symlink("loop", root_ / "folder/loop");
    EXPECT_THROW(listDirectory(root_, true, false), fs::filesystem_error);
}

}  // namespace
