// Whether the owner of a volume lets diagnostic data be collected from it.
#pragma once

#include <string>

#include "base/run_options.h"
#include "volumes/volume_info.h"

namespace tarnwick {

// Reads the owner's recorded choice from the volume and, unless it grants consent or the run is non-interactive, asks
// the person at the terminal for a one-time consent, which is never written back. Returns false when there is no
// readable record; otherwise true, with `granted` telling the outcome. With `force` on an internal build consent is
// granted without a look.
bool checkConsent(const VolumeInfo& volume, const RunOptions& options, bool& granted);

bool askOneTimeConsent();

// Asks until the answer is "yes" or "no" in any letter case, nothing around it, or the input ends, which is a no.
bool askYesNo(const std::string& question);

// Prints the question and reads one line, from pendingAnswer if that is not empty, else from standard input. Returns
// false at the end of input; a last line without a line end still counts.
bool readAnswerLine(const std::string& question, std::string& answer);

// An answer given beforehand, taken once. Nothing in the program fills it: it is for driving the dialogue without a
// terminal.
extern std::string pendingAnswer;

}  // namespace tarnwick
