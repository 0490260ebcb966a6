// What qvx says and how it ends.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick::qvx {

enum ExitStatus : int { exitFine = 0, exitFailed = 1, exitUsage = 2, exitOtherKey = 3 };

// "qvx: MESSAGE" on standard error. Names from disk or from an archive go through escapedName first.
void say(const std::string& message);

// As say, with ": " and the text of an errno value behind the message.
void sayError(const std::string& message, int error);

// A path or name for one line of a terminal: what is not printable UTF-8, and the backslash, as \xHH. Reversible.
std::string escapedName(std::string_view name);

}  // namespace tarnwick::qvx
