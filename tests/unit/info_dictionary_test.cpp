#include "platform/info_dictionary.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/find_dialect.h"
#include "platform/internal_policies.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

struct Directive {
    std::string basePath, expression, docString;
    bool operator==(const Directive&) const = default;
};

void PrintTo(const Directive& directive, std::ostream* out) {
    *out << directive.basePath << " | " << directive.expression << " | " << directive.docString;
}

const std::vector<Directive> defaultDirectives{
    {R"(/private/var/log)", R"(.*\/system.log)", R"--(system log (single file))--"},
    {R"(/private/var/log)", R"(.*\/install.log)", R"--(installer log (single file))--"},
    {R"(/private/var/tmp)", R"(.*\/hostdump_.*)", R"--(any hostdump (files starting with "hostdump_" in /var/tmp))--"},
    {R"(/private/var/tmp/kernel_panics)", R"(.*)", R"--(all files under /var/tmp/kernel_panics)--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/panic-.*)", R"--(all panic logs (files that start with "panic-"))--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/*.crash.*)",
     R"--(all crash logs (files that end up with "crash"))--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/*.ips.*)", R"--(all IPS logs (files that end up with "ips"))--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/*.diag.*)", R"--(all DIAG logs (files that end up with "diag"))--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/*.spin.*)", R"--(all spin logs (files that end up with "spin"))--"},
    {R"(/Library/Logs/DiagnosticReports)", R"(.*\/panic.*.panic)", R"--(all panic logs (for panic debug))--"},
    {R"(/Library/Logs/FaultKeeper)", R"(.*)", R"--(all files under FaultKeeper)--"},
    {R"(/private/var/log)", R"(.*\/wifi.*)", R"--(all files in /var/log starting with "wifi")--"}};

TEST(OwnInfoDictionary, HoldsTheDefaultDirectivesInOrder) {
    const auto spec = lookupOwnInfoValue("CaptureSpec");
    ASSERT_TRUE(spec && spec->as<PropertyListArray>());
    std::vector<Directive> embedded;
    for (const auto& each : *spec->as<PropertyListArray>()) {
        const auto field = [&](const char* key) {
            return textFromPlatformString(findValue(*each.as<PropertyListDictionary>(), key));
        };
        embedded.push_back({field("BasePath"), field("Expression"), field("DocString")});
        EXPECT_EQ(regexTypeOption(embedded.back().expression), "") << "the search command stays as it is";
    }
    EXPECT_EQ(embedded, defaultDirectives);
}

TEST(OwnInfoDictionary, HoldsARecipientKeyAndNothingUnderOtherNames) {
    const auto key = lookupOwnInfoValue("archive_public_key");
    const auto line = textFromPlatformString(key ? &*key : nullptr);
    EXPECT_EQ(line.size(), 160U);
    EXPECT_TRUE(line.starts_with("ecdsa-sha2-nistp256 AAAA")) << line;
    EXPECT_FALSE(lookupOwnInfoValue("archive_public_ke"));
}

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
