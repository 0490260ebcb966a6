#include "app/command_path.h"

#include <gtest/gtest.h>

using tarnwick::completeCommandPath;

TEST(CommandPath, AppendsMissingSystemFoldersAndDropsEmptyElements) {
    EXPECT_EQ(completeCommandPath(""), "/usr/sbin:/sbin:/usr/bin:/bin");
    EXPECT_EQ(completeCommandPath(":/a b::/bin:"), "/a b:/bin:/usr/sbin:/sbin:/usr/bin");
    EXPECT_EQ(completeCommandPath("/opt/usr/sbin:."), "/opt/usr/sbin:.:/usr/sbin:/sbin:/usr/bin:/bin");
}
