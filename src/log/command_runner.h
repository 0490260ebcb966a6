// Runs shell commands. All external commands run through this module.
#pragma once

#include <cstdint>
#include <string>

namespace tarnwick {

// Passes `commandLine` to the shell unchanged (the caller quotes), collects its standard output in `output`, and logs
// command, status and output as TRACE lines. Does not capture standard error. Blocks without a time limit, because the
// command may be asking the user for a passphrase.
//
// Returns the raw wait status of pclose (exit code 1 is 256), or -1 when pclose fails. With `dieOnNonzero` a status
// other than 0 ends the run through raiseFatal. When the shell cannot be started, throws FatalError "popen() failed!"
// and prints and logs nothing.
//
// Reads the output in pieces of at most 127 bytes; a piece also ends after a line end. A zero byte drops the rest of
// its piece.
std::int64_t runCommand(const std::string& commandLine, std::string& output, bool dieOnNonzero);

}  // namespace tarnwick
