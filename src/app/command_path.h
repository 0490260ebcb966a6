// The folders in which the shell looks for the commands that a run starts.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// `inherited`, a value of PATH, with /usr/sbin, /sbin, /usr/bin and /bin appended where they are missing. cron and some
// logins omit the folders of administrator commands such as `volctl`. Empty elements are dropped: they mean the current
// directory, where another user may have put a command of the same name, and are mostly a mistake. All other elements
// keep their order.
std::string completeCommandPath(std::string_view inherited);

}  // namespace tarnwick
