// Messages and exit statuses of qvx.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"

namespace tarnwick::qvx {

enum ExitStatus : int { exitFine = 0, exitFailed = 1, exitUsage = 2, exitOtherKey = 3 };

// Prints "qvx: MESSAGE" on standard error. Names from disk or from an archive must be passed through escapedName first.
void say(const std::string& message);

// The same for an error, whose subject it prints first, escaped.
void say(const Error& error);

// Like say, followed by ": " and the text of an errno value.
void sayError(const std::string& message, int error);

// A path or name on one line of a terminal: the backslash, and bytes that are not printable UTF-8, become \xHH.
// Reversible.
std::string escapedName(std::string_view name);

}  // namespace tarnwick::qvx
