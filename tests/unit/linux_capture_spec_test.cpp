// The factory configuration, tried with the real `find` on a small copy of the places that it names.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "config/capture_spec.h"
#include "platform/find_dialect.h"
#include "shell_output.h"
#include "temporary_folder.h"

using namespace tarnwick;

namespace {

TEST(LinuxCaptureSpec, EachDirectiveFindsItsFilesAndNoOthers) {
    const TemporaryFolder folder;
    const auto root = folder.path.string();
    std::multiset<std::string> wanted, found;
    std::ifstream places(TEST_DATA "/linux-places.txt");
    for (std::string system, sign, path; places >> system >> sign >> path;) {
        folder.write(path.substr(1), "x");
        if (sign == "+") wanted.insert(path);
    }
    for (const auto& directive : loadCaptureSpec(LINUX_CAPTURE_SPEC)) {
        EXPECT_TRUE(directive.BasePath.starts_with('/') && !directive.DocString.empty()) << directive.DocString;
        std::istringstream lines(test::outputOf("find \"" + root + directive.BasePath + "\" -type f " +
                                                regexTypeOption(directive.Expression) + "-regex '" +
                                                directive.Expression + "'"));
        EXPECT_NE(lines.peek(), EOF) << directive.DocString;
        for (std::string line; std::getline(lines, line);) found.insert(line.substr(root.size()));
    }
    EXPECT_EQ(found, wanted) << "once each";
}

}  // namespace
