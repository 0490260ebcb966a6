// The two service modes: list the capture store, and empty it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/run_options.h"
#include "store/capture_store.h"

namespace tarnwick {

// Prints the list on standard output, as text or as an XML property list. Paths in the XML are not escaped.
void printSummary(const std::vector<CaptureRecord>& captures, bool asPlist);
void printSummaryPlist(const std::vector<CaptureRecord>& captures);

// For example "1.50KB": two decimals, and a unit that is a power of 1024 but has the name of a power of 1000. Sizes
// from 1024^5 on keep the unit "TB".
std::string formatByteSize(std::uint64_t bytes);

// Removes every capture that listCaptures() finds, and nothing else. Always returns true. A capture that has vanished
// is not an error; one that cannot be removed throws std::filesystem::filesystem_error.
bool cleanupCaptures(RunOptions& options);

}  // namespace tarnwick
