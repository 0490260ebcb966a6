#include "log/command_runner.h"

#include <array>
#include <cstdio>

#include "base/fatal_error.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace {

std::string readAll(std::FILE* pipe) {
    std::string text;
    std::array<char, 128> piece{};
    // Only end of file ends the loop. A read that fails for another reason, such as a signal, is repeated.
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
    // NOLINTNEXTLINE(cert-env33-c): command lines come from this program and its configuration, for the shell
    std::FILE* pipe = ::popen(commandLine.c_str(), "re");
    if (!pipe) throw FatalError("popen() failed!");
    output = readAll(pipe);
    const std::int64_t status = ::pclose(pipe);
    // Unsigned: the tools that read these logs expect 18446744073709551615 for -1.
    logTrace("result: " + std::to_string(static_cast<std::uint64_t>(status)));
    logTrace("stdout: " + output);
    if (status != 0 && dieOnNonzero) raiseFatal("command returned nonzero, time to die.");
    return status;
}

}  // namespace tarnwick
