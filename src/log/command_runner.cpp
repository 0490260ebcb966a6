#include "log/command_runner.h"

#include <array>
#include <cstdio>

#include "base/fatal_error.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace {

// The shell's answer for a command that it does not find. What it says of it goes to the terminal, not into the log.
constexpr std::int64_t commandNotFound = 127 << 8;

std::string readAll(std::FILE* pipe) {
    std::string text;
    std::array<char, 128> piece{};
    // End of file is the only way out: a read that fails for another reason, such as a signal, is tried again.
    while (!std::feof(pipe)) {
        if (std::fgets(piece.data(), piece.size(), pipe)) {
            text += piece.data();
        } else if (std::ferror(pipe)) {
            std::clearerr(pipe);
        }
    }
    return text;
}

}  // namespace

std::int64_t runCommand(const std::string& commandLine, std::string& output, bool dieOnNonzero) {
    logTrace("Running command: '" + commandLine + "'");
    output.clear();
    // NOLINTNEXTLINE(cert-env33-c): command lines of our own, and of the configuration, are meant for the shell
    std::FILE* pipe = ::popen(commandLine.c_str(), "re");
    if (!pipe) throw FatalError("popen() failed!");
    output = readAll(pipe);
    const std::int64_t status = ::pclose(pipe);
    // Unsigned, as the tools that read these logs know it: -1 shows as 18446744073709551615.
    logTrace("result: " + std::to_string(static_cast<std::uint64_t>(status)));
    logTrace("stdout: " + output);
    if (status == commandNotFound) logTrace("command not found: " + commandLine.substr(0, commandLine.find(' ')));
    if (status != 0 && dieOnNonzero) raiseFatal("command returned nonzero, time to die.");
    return status;
}

}  // namespace tarnwick
