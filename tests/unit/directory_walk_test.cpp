#include "base/directory_walk.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "temporary_folder.h"

namespace fs = std::filesystem;
using tarnwick::listDirectory;

namespace {

using Names = std::set<std::string>;

TEST(DirectoryWalk, FollowsLinksAndSkipsWhatIsNeitherFileNorDirectory) {
    const tarnwick::TemporaryFolder temporary;
    const auto& root = temporary.path;
    const auto walk = [&](bool recurse, bool includeDirectories) {
        Names names;
        for (const auto& path : listDirectory(root, recurse, includeDirectories))
            names.insert(path.lexically_relative(root));
        return names;
    };
    fs::create_directories(root / "folder/inner");
    for (const auto* name : {"plain", "folder/inner/deep"}) std::ofstream(root / name) << "x";
    fs::create_symlink("plain", root / "to-file");
    fs::create_symlink("folder", root / "to-folder");
    fs::create_symlink("nowhere", root / "dangling");

    EXPECT_EQ(walk(false, false), (Names{"plain", "to-file"}));
    EXPECT_EQ(walk(false, true), (Names{"folder", "plain", "to-file", "to-folder"}));
    EXPECT_EQ(walk(true, false), (Names{"folder/inner/deep", "plain", "to-file", "to-folder/inner/deep"}));
    for (const auto* none : {"plain", "missing"}) EXPECT_TRUE(listDirectory(root / none, true, true).empty()) << none;

    // A link that leads to itself cannot be asked for its status: ELOOP, which would leave the list incomplete.
    fs::create_symlink("loop", root / "folder/loop");
    EXPECT_THROW(walk(true, false), fs::filesystem_error);
}

}  // namespace
