// Finding the files that the capture specification names, and making the one that is not found but generated.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarnwick {

using FilesList = std::vector<std::filesystem::path>;  // in the order found, duplicates kept

// Empties `files`, then searches the volume at `mountPoint` for each directive in turn and appends what `find` prints,
// line by line, unchanged. So the list holds one volume's files: callers that want more keep them elsewhere. The
// configuration is read afresh (capture_spec.h). A directive whose directory is missing is passed over; one whose
// search fails contributes nothing at all, not even what was printed before the failure.
// Throws std::out_of_range on an empty BasePath, std::filesystem::filesystem_error when a directory's status cannot be
// told.
void runCaptureDirectives(const std::string& captureSpecPath, FilesList& files,
                          const std::filesystem::path& mountPoint);

// Appends the dump of the firmware variables to the file `outputPath`, whose name must need no quoting in a shell.
// Returns whether nvram succeeded.
bool captureFirmwareVariables(const std::filesystem::path& outputPath);

}  // namespace tarnwick
