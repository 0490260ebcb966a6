// Messages and exit statuses of qvx.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"
#include "base/visible_text.h"

namespace tarnwick::qvx {

enum ExitStatus : int { exitSuccess = 0, exitFailed = 1, exitUsage = 2, exitOtherKey = 3 };

// Why a command ended. The program prints it and exits with the status.
struct CommandError : Error {
    ExitStatus status = exitFailed;
};
using CommandResult = Result<ExitStatus, CommandError>;

// Prints "qvx: MESSAGE" on standard error, with invisible characters escaped. Names from disk or from an archive must
// be passed through escapedName first, which escapes the backslash, too. Of addresses, what may be secret is left out.
void report(const std::string& message);

// The same for an error, whose subject it prints first, escaped.
void report(const Error& error);

// The same for what is no error: what the user may do next, or a summary. Not with --quiet.
void reportHint(const std::string& message);

// Prints the path of an entry that is processed, if --verbose was given.
void reportEntry(std::string_view path);

// Like report, followed by ": " and the text of an errno value.
void reportError(const std::string& message, int error);

}  // namespace tarnwick::qvx
