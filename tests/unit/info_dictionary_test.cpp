#include "platform/info_dictionary.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/internal_policies.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

TEST(OwnInfoDictionary, HoldsTheDefaultDirectivesInOrderAndARecipientKey) {
    const std::string expected = R"(
/private/var/log | .*\/system.log | system log (single file)
/private/var/log | .*\/install.log | installer log (single file)
/private/var/tmp | .*\/hostdump_.* | any hostdump (files starting with "hostdump_" in /var/tmp)
/private/var/tmp/kernel_panics | .* | all files under /var/tmp/kernel_panics
/Library/Logs/DiagnosticReports | .*\/panic-.* | all panic logs (files that start with "panic-")
/Library/Logs/DiagnosticReports | .*\/*.crash.* | all crash logs (files that end up with "crash")
/Library/Logs/DiagnosticReports | .*\/*.ips.* | all IPS logs (files that end up with "ips")
/Library/Logs/DiagnosticReports | .*\/*.diag.* | all DIAG logs (files that end up with "diag")
/Library/Logs/DiagnosticReports | .*\/*.spin.* | all spin logs (files that end up with "spin")
/Library/Logs/DiagnosticReports | .*\/panic.*.panic | all panic logs (for panic debug)
/Library/Logs/FaultKeeper | .* | all files under FaultKeeper
/private/var/log | .*\/wifi.* | all files in /var/log starting with "wifi")";
    const auto spec = lookupOwnInfoValue("CaptureSpec");
    ASSERT_TRUE(spec && spec->as<PropertyListArray>());
    std::string embedded;
    for (const auto& each : *spec->as<PropertyListArray>()) {
        const auto field = [&](const char* key) {
            return textFromPlatformString(findValue(*each.as<PropertyListDictionary>(), key));
        };
        embedded += "\n" + field("BasePath") + " | " + field("Expression") + " | " + field("DocString");
    }
    EXPECT_EQ(embedded, expected);
    const auto key = lookupOwnInfoValue("archive_public_key");
    const auto line = textFromPlatformString(key ? &*key : nullptr);
    EXPECT_TRUE(line.size() == 160 && line.starts_with("ecdsa-sha2-nistp256 AAAA")) << line;
}

// Stands in a mount namespace of its own, with empty folders in place of the system's: nothing reaches the machine.
class SystemFiles : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs root and a mount namespace";
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        for (const char* place : {"/etc", "/usr/lib"}) ASSERT_EQ(mount("none", place, "tmpfs", 0, nullptr), 0);
    }

    static void write(const fs::path& path, const std::string& content, mode_t mode = 0644) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "<plist><dict><key>com.vexlor.tarnwick</key>" << content << "</dict></plist>";
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
};

// Owner, mode, links and integers are tried by the program itself.
TEST_F(SystemFiles, PoliciesAllowOnlyWhatAFileMapsToBooleanTrue) {
    const fs::path policies = "/etc/tarnwick/internal-policies.plist";
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
    write(policies, "<true/>", 0444);
    EXPECT_TRUE(internalPoliciesAllowed(subsystemIdentifier));
    EXPECT_FALSE(internalPoliciesAllowed("com.vexlor.other"));
    for (const char* other : {"<false/>", "<string>true</string>", "<true/><key>"}) {
        write(policies, other);
        EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier)) << other;
    }
    fs::remove(policies);
    ASSERT_EQ(mkfifo(policies.c_str(), 0644), 0);
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));
}

TEST_F(SystemFiles, BundlesAreFoundByOnePlainName) {
    const fs::path folder = "/usr/lib/tarnwick/bundles", own = folder / "com.vexlor.sample/Info.plist";
    for (const auto& path : {folder / "Info.plist", folder.parent_path() / "Info.plist", own}) write(path, "<true/>");
    const auto bundle = findBundleByIdentifier("com.vexlor.sample");
    ASSERT_TRUE(bundle);
    EXPECT_TRUE(lookupBundleInfoValue(*bundle, "com.vexlor.tarnwick"));
    EXPECT_FALSE(lookupBundleInfoValue(*bundle, "absent"));

    using namespace std::literals;
    for (const auto name : {""sv, "."sv, ".."sv, "com.vexlor.sample/"sv, "x/../com.vexlor.sample"sv,
                            "com.vexlor.sample\0"sv, "/usr/lib/tarnwick/bundles/com.vexlor.sample"sv, "absent"sv})
        EXPECT_FALSE(findBundleByIdentifier(name)) << name;
    write(own, "<true/>", 0666);
    EXPECT_FALSE(findBundleByIdentifier("com.vexlor.sample"));
}

}  // namespace
