// Finds the files that the capture specification names, and makes the file with the firmware variables.
#pragma once

#include <filesystem>
#include <string>

#include "capture/found_files.h"

namespace tarnwick {

// Empties `files`, then searches the volume at `mountPoint` for each directive in turn and appends the paths that
// `find` prints, except those that may not be captured (found_files.h). After the call, the list has only the files of
// this volume; a caller that needs those of an earlier volume must copy them before. Reads the configuration on every
// call (capture_spec.h). A directive whose directory is missing is skipped. A directive whose search fails adds
// nothing, not even the paths that were printed before the failure.
// Throws std::out_of_range on an empty BasePath, and std::filesystem::filesystem_error when the status of a directory
// cannot be read.
void runCaptureDirectives(const std::string& captureSpecPath, FilesList& files, const std::filesystem::path& mountPoint,
                          ConsentedVolumes& consented);

// Appends the dump of the firmware variables to the file `outputPath`. The path is used unquoted in a shell command.
// Returns whether nvram succeeded.
bool captureFirmwareVariables(const std::filesystem::path& outputPath);

}  // namespace tarnwick
