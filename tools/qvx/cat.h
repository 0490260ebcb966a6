// Writes contents to standard output.
#pragma once

#include "archive_access.h"

namespace tarnwick::qvx {

// Writes the files of each pattern, in the order of the patterns, and those of one pattern in the order in which they
// are stored. Of several entries with one path, the last one counts. A glob leaves out what is not a file.
CommandResult writeContents(const ArchiveOptions& options, const std::vector<std::string>& patterns);

}  // namespace tarnwick::qvx
