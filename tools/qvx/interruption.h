// Signals that ask the program to stop, so that it can remove its temporary files first.
#pragma once

namespace tarnwick::qvx {

// From this call on, SIGINT, SIGTERM and SIGHUP are recorded and do not end the process.
void watchForInterruption();
bool interrupted();

}  // namespace tarnwick::qvx
