// Finding the files that the capture specification names, and making the one that is not found but generated.
#pragma once

#include <filesystem>
#include <string>

#include "capture/found_files.h"

namespace tarnwick {

// Empties `files`, then searches the volume at `mountPoint` for each directive in turn and appends the paths that
// `find` prints, but for those that may not be taken (found_files.h). So the list holds the files of one search:
// callers that want more keep them elsewhere. The configuration is read afresh (capture_spec.h). A directive whose
// directory is missing is skipped; one whose search fails contributes nothing, not even what was printed before the
// failure.
// Throws std::out_of_range on an empty BasePath, std::filesystem::filesystem_error when a directory's status cannot be
// told.
void runCaptureDirectives(const std::string& captureSpecPath, FilesList& files, const std::filesystem::path& mountPoint,
                          ConsentedVolumes& consented);

// Appends the dump of the firmware variables to the file `outputPath`, whose name must need no quoting in a shell.
// Returns whether nvram succeeded.
bool captureFirmwareVariables(const std::filesystem::path& outputPath);

}  // namespace tarnwick
