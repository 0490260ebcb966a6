#include "log/command_runner.h"

#include <gtest/gtest.h>

#include "base/fatal_error.h"

using tarnwick::runCommand;

TEST(CommandRunner, GivesTheRawWaitStatusAndTheOutputInPieces) {
    std::string output = "left over";
    EXPECT_THROW(runCommand("exit 2", output, true), tarnwick::FatalError);
    const std::tuple<const char*, int, std::string> cases[] = {
        {"exec 2>&-; no-such-command-here", 32512, ""},
        {"printf '%0300d\\n%0127d' 7 8", 0, std::string(299, '0') + "7\n" + std::string(126, '0') + "8"},
        // A zero byte drops the rest of its piece, which ends with the line, or after 127 bytes.
        {"printf 'a\\0b\\nc\\n'", 0, "ac\n"},
        {"printf '\\0%0126dX' 1", 0, "X"},
    };
    for (const auto& [command, status, expected] : cases) {
        EXPECT_EQ(runCommand(command, output, false), status) << command;
        EXPECT_EQ(output, expected) << command;
    }
}
