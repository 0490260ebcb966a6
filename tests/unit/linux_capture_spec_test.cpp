// The example capture specification, tried with the real `find` on a small copy of the places that it names.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "config/capture_spec.h"
#include "platform/find_dialect.h"
#include "shell_output.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using tarnwick::test::outputOf;

namespace {

TEST(LinuxCaptureSpec, EachDirectiveFindsItsFilesAndNoOthers) {
    const auto words = [](std::string_view text) {
        std::istringstream stream{std::string(text)};
        return std::set<std::string>(std::istream_iterator<std::string>(stream), {});
    };
    const auto wanted = words(R"(
        /run/log/journal/0123/system.journal /var/crash/202401010000/dmesg.202401010000 /var/log/Xorg.0.log.old
        /var/lib/rasdaemon/ras-mc_event.db /var/lib/smartmontools/smartd.DISK-1.ata.state /var/log/alternatives.log.1
        /var/lib/systemd/coredump/core.prog.0.abc.1.2.zst /var/lib/systemd/pstore/1/dmesg.txt /var/log/apt/term.log
        /var/log/boot.log-20240101 /var/log/bootstrap.log /var/log/dpkg.log /var/log/fwupd.log /var/log/syslog
        /var/log/installer/syslog /var/log/journal/0123/user-1000@00ff.journal~ /var/log/kern.log.2.gz
        /var/log/sysstat/sa01 /var/log/unattended-upgrades/unattended-upgrades.log)");
    const auto unwanted = words(R"(
        /var/log/auth.log /var/log/wtmp /var/log/nginx/access.log /var/lib/systemd/random-seed
        /var/log/app/syslog.d/secret)");
    const TemporaryFolder folder;
    const auto root = folder.path.string();
    for (const auto& list : {wanted, unwanted}) {
        for (const auto& path : list) {
            fs::create_directories(fs::path(root + path).parent_path());
            std::ofstream(root + path) << "x";
        }
    }

    std::multiset<std::string> found;
    for (const auto& directive : loadCaptureSpec(LINUX_CAPTURE_SPEC)) {
        EXPECT_TRUE(directive.BasePath.starts_with('/') && !directive.DocString.empty()) << directive.DocString;
        std::istringstream lines(outputOf("find \"" + root + directive.BasePath + "\" -type f " +
                                          regexTypeOption(directive.Expression) + "-regex '" + directive.Expression +
                                          "'"));
        EXPECT_NE(lines.peek(), EOF) << directive.DocString;
        for (std::string line; std::getline(lines, line);) found.insert(line.substr(root.size()));
    }
    EXPECT_EQ(found, std::multiset<std::string>(wanted.begin(), wanted.end())) << "once each";
}

}  // namespace
