// The folders in which the shell looks for the commands that a run starts.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// `inherited`, a value of PATH, with those of /usr/sbin, /sbin, /usr/bin and /bin appended that are not in it. cron and
// some logins leave out the folders of administrator commands, `volctl` among them. Empty elements are dropped: they
// are mostly a slip, and they mean the current directory, where another user may have put a command of the same name.
// Every other element stays, in its order.
std::string completeCommandPath(std::string_view inherited);

}  // namespace tarnwick
