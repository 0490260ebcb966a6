// Signals that ask the program to stop, so that it can remove its temporary files first.
#pragma once

namespace tarnwick::qvx {

// From this call on, SIGINT, SIGTERM and SIGHUP are recorded and do not end the process, unless they are ignored.
void watchForInterruption();

// The same, but the signal also calls `wake` in its handler, and ends a call that waits early.
void watchForInterruption(void (*wake)(int number));

// Signals end the process again. Those that were recorded stay so.
void stopWatchingForInterruption();

bool interrupted();

// Ends the process by the signal that was recorded, so that a shell knows why it ended.
void endAsInterrupted();

}  // namespace tarnwick::qvx
