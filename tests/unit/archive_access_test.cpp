#include "qvx/archive_access.h"

#include <gtest/gtest.h>

#include "temporary_folder.h"

// A reader keeps 4 times as many leaders in memory for what is no file.
TEST(ArchiveAccess, ReadsAFileAsAFileWhileItCountsTheBytes) {
    const tarnwick::TemporaryFolder folder;
    const auto file = tarnwick::qvx::openArchiveFile(folder.write("archive", "x"));
    EXPECT_TRUE(file && (*file)->isFile());
}
