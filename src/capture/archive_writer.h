// Packs the captured files into one archive that only the recipient can open.
#pragma once

#include <filesystem>
#include <string>

#include "capture/capture_directives.h"

namespace tarnwick {

// Writes `files`, in their order, into a new archive at `archivePath`, sealed to the key of `publicKeyText`
// (archive_public_key.h). On failure a regular file at that path is removed, also one that existed before, and the run
// ends through raiseFatal with the message of the first step that failed. Logs nothing on success.
void encryptFile(const FilesList& files, const std::string& publicKeyText, const std::filesystem::path& archivePath);

}  // namespace tarnwick
