#include "platform/info_dictionary.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/internal_policies.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

TEST(OwnInfoDictionary, HoldsTheDefaultDirectivesInOrderAndARecipientKey) {
    std::ostringstream expected, embedded;
    expected << std::ifstream(TEST_DATA "/default-directives.txt").rdbuf();
    const auto spec = lookupOwnInfoValue("CaptureSpec"), key = lookupOwnInfoValue("archive_public_key");
    ASSERT_TRUE(spec && spec->as<PropertyListArray>() && key);
    for (const auto& each : *spec->as<PropertyListArray>())
        for (const char* field : {"BasePath", "Expression", "DocString"})
            embedded << textFromPlatformString(findValue(*each.as<PropertyListDictionary>(), field)) << '\n';
    EXPECT_EQ(embedded.str(), expected.str());
    const auto line = textFromPlatformString(&*key);
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
    write(policies, "<true/>", 0444);
    EXPECT_TRUE(internalPoliciesAllowed(subsystemIdentifier));
    EXPECT_FALSE(internalPoliciesAllowed("com.vexlor.other"));
    for (const char* other : {"<false/>", "<string>true</string>"}) {
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
    EXPECT_TRUE(bundle && lookupBundleInfoValue(*bundle, "com.vexlor.tarnwick"));

    using namespace std::literals;
    for (const auto name : {""sv, "."sv, ".."sv, "com.vexlor.sample/"sv, "x/../com.vexlor.sample"sv,
                            "com.vexlor.sample\0"sv, "/usr/lib/tarnwick/bundles/com.vexlor.sample"sv, "absent"sv})
        EXPECT_FALSE(findBundleByIdentifier(name)) << name;
    write(own, "<true/>", 0666);
    EXPECT_FALSE(findBundleByIdentifier("com.vexlor.sample"));
}

}  // namespace
