// The configuration file that a downloaded configuration asset holds.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarnwick {

// Selectors of resolveConfigFile. Any other value selects no file.
inline constexpr int configurationFile = 0;  // "tarnwick.config.plist"

// The path of the selected file in the newest configuration asset, at any depth, or the empty text. The file is not
// opened here. Errors of the directory walk are thrown as std::filesystem::filesystem_error.
std::string resolveConfigFile(int selector);

// All regular files of that asset, in the file system's order.
std::vector<std::filesystem::path> listConfigAssetFiles();

}  // namespace tarnwick
