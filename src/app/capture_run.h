// A whole capture, from the execution log to the stored archive.
#pragma once

#include "base/run_options.h"

namespace tarnwick {

// Returns when the capture is stored; anything that cannot be recovered from ends it by a std::runtime_error. What was
// made up to there (log file, capture folder, partial archive) stays in /tmp either way. Only the files of the last
// volume whose owner consented reach the archive, beside the firmware variables and the copy of the log.
void runCapture(RunOptions& options);

}  // namespace tarnwick
