// A whole capture, from the execution log to the stored archive.
#pragma once

#include "base/run_options.h"

namespace tarnwick {

// Returns when the capture is stored; an error that cannot be recovered from throws std::runtime_error. What was made
// up to then (log file, capture folder, partial archive) stays in /tmp in either case. Besides the firmware variables
// and the copy of the log, the archive contains only the files of the last volume whose owner consented.
void runCapture(RunOptions& options);

}  // namespace tarnwick
