#include "platform/info_dictionary.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/internal_policies.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Stands in a mount namespace of its own, with empty folders in place of the system's: nothing reaches the machine.
class SystemFiles : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs root and a mount namespace";
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        for (const char* place : {"/etc", "/usr/lib"}) ASSERT_EQ(mount("none", place, "tmpfs", 0, nullptr), 0);
        fs::create_directory("/etc/tarnwick");
    }

    static void write(const fs::path& path, const std::string& content, mode_t mode = 0644) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "<plist><dict><key>com.vexlor.tarnwick</key>" << content << "</dict></plist>";
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    const fs::path policies_ = "/etc/tarnwick/internal-policies.plist";
};

TEST_F(SystemFiles, PoliciesAllowOnlyWhatTheyMapToBooleanTrue) {
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
    write(policies_, "<true/>");
    EXPECT_TRUE(internalPoliciesAllowed(subsystemIdentifier));
    EXPECT_FALSE(internalPoliciesAllowed("com.vexlor.other"));
    for (const char* other : {"<false/>", "<integer>1</integer>", "<string>true</string>", "<true/><key>"}) {
        write(policies_, other);
        EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier)) << other;
    }
}

TEST_F(SystemFiles, PoliciesCountOnlyAsRootsOwnFile) {
    for (const mode_t mode : {0664U, 0646U}) {
        write(policies_, "<true/>", mode);
        EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier)) << mode;
    }
    write(policies_, "<true/>", 0444);
    ASSERT_EQ(chown(policies_.c_str(), 1, 0), 0);
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
    ASSERT_EQ(chown(policies_.c_str(), 0, 0), 0);
    EXPECT_TRUE(internalPoliciesAllowed(subsystemIdentifier));

    fs::rename(policies_, "/etc/tarnwick/real");
    fs::create_symlink("real", policies_);
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
    fs::remove(policies_);
    ASSERT_EQ(mkfifo(policies_.c_str(), 0644), 0);
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
}

TEST_F(SystemFiles, BundlesAreFoundByOnePlainName) {
    write("/usr/lib/tarnwick/bundles/com.vexlor.sample/Info.plist", "<string>in the bundle</string>");
    write("/usr/lib/tarnwick/bundles/Info.plist", "<true/>");
    write("/usr/lib/tarnwick/Info.plist", "<true/>");
    const auto bundle = findBundleByIdentifier("com.vexlor.sample");
    ASSERT_TRUE(bundle);
    const auto value = lookupBundleInfoValue(*bundle, "com.vexlor.tarnwick");
    EXPECT_EQ(textFromPlatformString(value ? &*value : nullptr), "in the bundle");
    EXPECT_FALSE(lookupBundleInfoValue(*bundle, "absent"));

    using namespace std::literals;
    for (const auto name : {""sv, "."sv, ".."sv, "com.vexlor.sample/"sv, "x/../com.vexlor.sample"sv,
                            "com.vexlor.sample\0"sv, "/usr/lib/tarnwick/bundles/com.vexlor.sample"sv, "absent"sv})
        EXPECT_FALSE(findBundleByIdentifier(name)) << name;

    ASSERT_EQ(chmod("/usr/lib/tarnwick/bundles/com.vexlor.sample/Info.plist", 0666), 0);
    EXPECT_FALSE(findBundleByIdentifier("com.vexlor.sample"));
}

}  // namespace
