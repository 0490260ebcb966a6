// Runs shell commands. Every outside tool is called through here.
#pragma once

#include <cstdint>
#include <string>

namespace tarnwick {

// Hands `commandLine` to the shell unchanged (the caller quotes), collects its standard output into `output`, and logs
// command, status and output as TRACE lines. Standard error is not captured. Blocks without a time limit: the command
// may be asking the user for a passphrase.
//
// Returns the raw wait status of pclose (exit code 1 is 256), -1 when pclose fails. With `dieOnNonzero` a status other
// than 0 ends the run through raiseFatal. When the shell cannot be started, throws FatalError "popen() failed!" and
// prints and logs nothing.
//
// Output is read in pieces of at most 127 bytes that end early after a line end; a zero byte drops the rest of its
// piece.
std::int64_t runCommand(const std::string& commandLine, std::string& output, bool dieOnNonzero);

}  // namespace tarnwick
