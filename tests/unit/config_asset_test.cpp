// The real service, with nothing configured, and a clock of the test's own. What comes of a web server is for the
// program test to show.
#include "config/config_asset.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>

#include "config/config_file.h"
#include "config/download_deadline.h"

namespace fs = std::filesystem;

namespace tarnwick {

std::chrono::seconds timeAllowed;

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) {
    timeAllowed = fromNow;
    return DownloadClock::now() + fromNow;
}

TEST(ConfigFile, IsTheOneOfThatExactNameAtAnyDepth) {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs root and a mount namespace";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    for (const char* place : {"/etc", "/var/lib", "/usr/share"})
        ASSERT_EQ(mount("none", place, "tmpfs", 0, "mode=755"), 0);
    const fs::path asset = "/var/lib/tarnwick/assets/com.vexlor.Provisor.tarnwick.config/4.1";
    const auto file = asset / "deep/er/tarnwick.config.plist";
    fs::create_directories(asset / "tarnwick.config.plist");
    std::ofstream(asset / "Tarnwick.config.plist") << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), file);
    EXPECT_EQ(resolveConfigFile(1), "");

    EXPECT_EQ(timeAllowed, std::chrono::seconds(0)) << "nothing is refreshed without a service";
    EXPECT_FALSE(downloadCatalog("t"));
    EXPECT_EQ(timeAllowed, std::chrono::seconds(30));
    EXPECT_FALSE(downloadAsset({}));
    EXPECT_EQ(timeAllowed, std::chrono::seconds(1800));
}

}  // namespace tarnwick
