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

TEST(OwnInfoDictionary, ContainsDefaultDirectivesInOrderAndRecipientKey) {
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

// In its own mount namespace, with empty folders over those of the system. The program test covers the owner, links and
// other types of the policies.
TEST(SystemFiles, RejectPathsAsIdentifiersAndFilesThatOthersCanWrite) {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs root and a mount namespace";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    for (const char* place : {"/etc", "/usr/lib"}) ASSERT_EQ(mount("none", place, "tmpfs", 0, nullptr), 0);
    const auto write = [](const fs::path& path, const std::string& content) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "<plist><dict><key>com.vexlor.tarnwick</key>" << content << "</dict></plist>";
        chmod(path.c_str(), 0644);
    };
    write("/etc/tarnwick/internal-policies.plist", "<true/>");
    EXPECT_TRUE(internalPoliciesAllowed(subsystemIdentifier));
    EXPECT_FALSE(internalPoliciesAllowed("com.vexlor.other"));
    write("/etc/tarnwick/internal-policies.plist", "<false/>");
    EXPECT_FALSE(internalPoliciesAllowed(subsystemIdentifier));

    const fs::path folder = "/usr/lib/tarnwick/bundles", own = folder / "com.vexlor.sample/Info.plist";
    for (const auto& path : {folder / "Info.plist", folder.parent_path() / "Info.plist", own}) write(path, "<true/>");
    const auto bundle = findBundleByIdentifier("com.vexlor.sample");
    EXPECT_TRUE(bundle && lookupBundleInfoValue(*bundle, "com.vexlor.tarnwick"));
    using namespace std::literals;
    for (const auto name : {""sv, "."sv, ".."sv, "com.vexlor.sample/"sv, "x/../com.vexlor.sample"sv,
                            "com.vexlor.sample\0"sv, "/usr/lib/tarnwick/bundles/com.vexlor.sample"sv, "absent"sv})
        EXPECT_FALSE(findBundleByIdentifier(name)) << name;
    chmod(own.c_str(), 0666);
    EXPECT_FALSE(findBundleByIdentifier("com.vexlor.sample"));
}

}  // namespace
