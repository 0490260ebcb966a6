#include "log/command_runner.h"

#include <gtest/gtest.h>

#include "base/fatal_error.h"

using tarnwick::runCommand;

namespace {

std::string outputOf(const std::string& command) {
    std::string output = "left over";
    runCommand(command, output, false);
    return output;
}

TEST(CommandRunner, GivesTheRawWaitStatus) {
    std::string output;
    EXPECT_EQ(runCommand("exit 0", output, true), 0);
    EXPECT_EQ(runCommand("exit 1", output, false), 256);
    EXPECT_EQ(runCommand("kill -9 $$", output, false), 9);
    EXPECT_EQ(runCommand("exec 2>&-; no-such-command-here", output, false), 32512);
    EXPECT_THROW(runCommand("exit 2", output, true), tarnwick::FatalError);
}

TEST(CommandRunner, CollectsStandardOutputInPieces) {
    EXPECT_EQ(outputOf("true"), "");
    EXPECT_EQ(outputOf("printf 'no line end'"), "no line end");
    EXPECT_EQ(outputOf("printf '%01000d\\n%0127d' 7 8").size(), 1000u + 1 + 127);
    // A zero byte drops the rest of its piece, which ends with the line, or after 127 bytes.
    EXPECT_EQ(outputOf("printf 'a\\0b\\nc\\n'"), "ac\n");
    EXPECT_EQ(outputOf("printf '\\0%0126dX' 1"), "X");
}

}  // namespace
