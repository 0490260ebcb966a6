// Runs work that continues in the background.
#pragma once

#include <functional>

#include "report.h"

namespace tarnwick::qvx {

// Runs `work` in a child process, which has the terminal until it calls `ready`: then it leaves the terminal, its
// standard streams and the working directory, and this process returns exitSuccess. If the work ends before that, this
// process returns the status of the child, which has printed its error. In the child, returns what `work` returns.
//
// Call it while there is only one thread.
using BackgroundWork = std::function<CommandResult(const std::function<void()>& ready)>;
CommandResult runInBackground(const BackgroundWork& work);

}  // namespace tarnwick::qvx
