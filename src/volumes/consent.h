// Whether the owner of a volume allows diagnostic data to be collected from it.
#pragma once

#include <string>

#include "base/run_options.h"
#include "volumes/volume_info.h"

namespace tarnwick {

// Reads the recorded choice of the owner from the volume. Unless it grants consent or the run is non-interactive, asks
// the person at the terminal for a one-time consent, which is never written back. Returns false when there is no
// readable record; otherwise true, and `granted` is the outcome. With `force` on an internal build, consent is granted
// without reading the record.
bool checkConsent(const VolumeInfo& volume, const RunOptions& options, bool& granted);

bool askOneTimeConsent();

// Asks until the answer is "yes" or "no" in any letter case, with nothing around it. The end of the input is a no.
bool askYesNo(const std::string& question);

// Prints the question and reads one line, from pendingAnswer if that is not empty, else from standard input. False at
// the end of the input; a last line without a line end still counts.
bool readAnswerLine(const std::string& question, std::string& answer);

// An answer given in advance, used once. The program never sets it; it drives the dialogue without a terminal.
extern std::string pendingAnswer;

}  // namespace tarnwick
