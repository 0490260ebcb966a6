#include "platform/info_dictionary.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

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

// In its own mount namespace, with an empty folder over that of the system. The program test has the policies.
TEST(Bundle, IsNotFoundByAPathOrInAFileThatOthersCanWrite) {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "needs root and a mount namespace";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/usr/lib", "tmpfs", 0, nullptr), 0);
    const fs::path folder = "/usr/lib/tarnwick/bundles", own = folder / "com.vexlor.sample/Info.plist";
    fs::create_directories(own.parent_path());
    for (const auto& path : {folder / "Info.plist", folder.parent_path() / "Info.plist", own}) {
        std::ofstream(path) << "<plist><dict><key>Key</key><true/></dict></plist>";
        chmod(path.c_str(), 0644);
    }
    const auto bundle = findBundleByIdentifier("com.vexlor.sample");
    EXPECT_TRUE(bundle && lookupBundleInfoValue(*bundle, "Key"));
    using namespace std::literals;
    for (const auto name : {""sv, "."sv, ".."sv, "com.vexlor.sample/"sv, "com.vexlor.sample\0"sv, "absent"sv})
        EXPECT_FALSE(findBundleByIdentifier(name)) << name;
    chmod(own.c_str(), 0666);
    EXPECT_FALSE(findBundleByIdentifier("com.vexlor.sample"));
}

}  // namespace
