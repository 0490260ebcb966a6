// A wish to stop that comes from outside, so that no temporary file stays behind.
#pragma once

namespace tarnwick::qvx {

// From now on SIGINT, SIGTERM and SIGHUP are taken note of instead of ending the process.
void watchForInterruption();
bool interrupted();

}  // namespace tarnwick::qvx
