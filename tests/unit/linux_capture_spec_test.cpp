// The example capture specification, tried with the real `find` on a small copy of the places that it names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/capture_spec.h"
#include "platform/find_dialect.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

std::vector<std::string> linesOf(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    std::vector<std::string> lines(1);
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) {
        if (byte == '\n') {
            lines.emplace_back();
        } else {
            lines.back().push_back(static_cast<char>(byte));
        }
    }
    lines.pop_back();
    EXPECT_EQ(pclose(pipe), 0) << command;
    return lines;
}

TEST(LinuxCaptureSpec, EachDirectiveFindsItsFilesAndNoOthers) {
    const std::vector<std::string> wanted{"/run/log/journal/0123/system.journal",
                                          "/var/crash/202401010000/dmesg.202401010000",
                                          "/var/lib/rasdaemon/ras-mc_event.db",
                                          "/var/lib/smartmontools/smartd.DISK-1.ata.state",
                                          "/var/lib/systemd/coredump/core.prog.0.abc.1.2.zst",
                                          "/var/lib/systemd/pstore/1/dmesg.txt",
                                          "/var/log/Xorg.0.log.old",
                                          "/var/log/alternatives.log.1",
                                          "/var/log/apt/term.log",
                                          "/var/log/boot.log-20240101",
                                          "/var/log/bootstrap.log",
                                          "/var/log/dpkg.log",
                                          "/var/log/fwupd.log",
                                          "/var/log/installer/syslog",
                                          "/var/log/journal/0123/user-1000@00ff.journal~",
                                          "/var/log/kern.log.2.gz",
                                          "/var/log/syslog",
                                          "/var/log/sysstat/sa01",
                                          "/var/log/unattended-upgrades/unattended-upgrades.log"};
    const std::vector<std::string> unwanted{"/var/log/auth.log", "/var/log/wtmp", "/var/log/nginx/access.log",
                                            "/var/lib/systemd/random-seed", "/var/log/app/syslog.d/secret"};
    std::string root = testing::TempDir() + "linux.XXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    for (const auto& list : {wanted, unwanted}) {
        for (const auto& path : list) {
            fs::create_directories(fs::path(root + path).parent_path());
            std::ofstream(root + path) << "x";
        }
    }

    std::vector<std::string> found;
    const auto directives = loadCaptureSpec(LINUX_CAPTURE_SPEC);
    EXPECT_FALSE(directives.empty());
    for (const auto& directive : directives) {
        EXPECT_TRUE(directive.BasePath.starts_with('/') && !directive.DocString.empty()) << directive.DocString;
        const auto lines = linesOf("find \"" + root + directive.BasePath + "\" -type f " +
                                   regexTypeOption(directive.Expression) + "-regex '" + directive.Expression + "'");
        EXPECT_FALSE(lines.empty()) << directive.DocString;
        for (const auto& line : lines) found.push_back(line.substr(root.size()));
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, wanted);
    fs::remove_all(root);
}

}  // namespace
