#include "base/directory_walk.h"

#include <gtest/gtest.h>

#include <set>

#include "temporary_folder.h"

namespace fs = std::filesystem;

namespace {

TEST(DirectoryWalk, FollowsLinksAndSkipsWhatIsNeitherFileNorDirectory) {
    using Paths = std::set<fs::path>;
    const tarnwick::TemporaryFolder temporary;
    fs::current_path(temporary.path);
    const auto walk = [](bool recurse, bool includeDirectories) {
        const auto paths = tarnwick::listDirectory(".", recurse, includeDirectories);
        return Paths(paths.begin(), paths.end());
    };
    for (const auto* name : {"plain", "folder/inner/deep"}) temporary.write(name, "x");
    fs::create_symlink("plain", "to-file");
    fs::create_symlink("folder", "to-folder");
    fs::create_symlink("nowhere", "dangling");
    EXPECT_EQ(walk(false, false), (Paths{"./plain", "./to-file"}));
    EXPECT_EQ(walk(true, false), (Paths{"./folder/inner/deep", "./plain", "./to-file", "./to-folder/inner/deep"}));
    // A link that leads to itself cannot be asked for its status: ELOOP, which would leave the list incomplete.
    fs::create_symlink("loop", "folder/loop");
    EXPECT_THROW(walk(true, false), fs::filesystem_error);
}

}  // namespace
