// The two service modes: telling what the capture store holds, and emptying it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/run_options.h"
#include "store/capture_store.h"

namespace tarnwick {

// Prints the listing on standard output, as text or as an XML property list whose paths are not escaped.
void printSummary(const std::vector<CaptureRecord>& captures, bool asPlist);
void printSummaryPlist(const std::vector<CaptureRecord>& captures);

// "1.50KB": steps of 1024 under their decimal names, two decimals. From 1024 to the fifth on the unit stays "TB".
std::string formatByteSize(std::uint64_t bytes);

// Removes every capture that the store lists, nothing else. Always true. A capture that cannot be removed, other than
// by having vanished, throws std::filesystem::filesystem_error.
bool cleanupCaptures(RunOptions& options);

}  // namespace tarnwick
