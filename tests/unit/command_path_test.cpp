#include "app/command_path.h"

#include <gtest/gtest.h>

TEST(CommandPath, AppendsMissingSystemFoldersAndDropsEmptyElements) {
    const std::pair<const char*, const char*> paths[] = {
        {"", "/usr/sbin:/sbin:/usr/bin:/bin"},
        {":", "/usr/sbin:/sbin:/usr/bin:/bin"},
        {"/usr/bin:/bin", "/usr/bin:/bin:/usr/sbin:/sbin"},
        {"/bin:/sbin:/usr/bin:/usr/sbin", "/bin:/sbin:/usr/bin:/usr/sbin"},
        {":/a b::/a b:/bin:", "/a b:/a b:/bin:/usr/sbin:/sbin:/usr/bin"},
        {"/opt/usr/sbin:.", "/opt/usr/sbin:.:/usr/sbin:/sbin:/usr/bin:/bin"},
    };
    for (const auto& [inherited, completed] : paths)
        EXPECT_EQ(tarnwick::completeCommandPath(inherited), completed) << inherited;
}
