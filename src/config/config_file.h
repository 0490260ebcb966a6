// Finds the configuration file in a downloaded configuration asset.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarnwick {

// Selectors of resolveConfigFile. Any other value selects no file.
inline constexpr int configurationFile = 0;  // "tarnwick.config.plist"

// The path of the selected file in the newest configuration asset, at any depth; empty when there is none. Does not
// open the file. Throws std::filesystem::filesystem_error on errors of the directory walk.
std::string resolveConfigFile(int selector);

// All regular files of that asset, in the file system's order.
std::vector<std::filesystem::path> listConfigAssetFiles();

}  // namespace tarnwick
