#include "qvx/archive_access.h"

#include <gtest/gtest.h>

#include "temporary_folder.h"

namespace tarnwick::qvx {
namespace {

// A reader keeps 4 times as many leaders in memory for what is no file.
TEST(ArchiveAccess, ReadsAFileAsAFileWhileItCountsTheBytes) {
    const TemporaryFolder folder;
    const auto file = openArchiveFile(folder.write("archive", "x"));
    ASSERT_TRUE(file);
    EXPECT_TRUE((*file)->isFile());
    EXPECT_FALSE((*file)->isStream());
}

}  // namespace
}  // namespace tarnwick::qvx
