// Running shell commands, the one way in which outside tools are reached.
#pragma once

#include <cstdint>
#include <string>

namespace tarnwick {

// Hands `commandLine` to the shell unchanged (callers quote), collects its standard output into `output`, and logs
// command, status and output as TRACE lines. Standard error stays the process's own. Blocks without a time limit: the
// command may be asking the user for a passphrase.
//
// Returns the raw wait status as the closing of the pipe gives it (exit code 1 is 256), -1 when that fails. With
// `dieOnNonzero` a status other than 0 ends the run through raiseFatal. A shell that cannot be started at all throws
// FatalError "popen() failed!" with nothing printed or logged.
//
// Output is read in pieces of at most 127 bytes that end with a line; a zero byte drops the rest of its piece.
std::int64_t runCommand(const std::string& commandLine, std::string& output, bool dieOnNonzero);

}  // namespace tarnwick
