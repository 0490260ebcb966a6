#include "config/config_file.h"

#include <algorithm>

#include "base/directory_walk.h"
#include "config/config_asset.h"

namespace tarnwick {

std::vector<std::filesystem::path> listConfigAssetFiles() {
    const std::string directory = fetchConfigAsset();
    if (directory.empty()) return {};
    return listDirectory(directory, true, false);
}

std::string resolveConfigFile(int selector) {
    const std::string name = selector == configurationFile ? "tarnwick.config.plist" : "";
    if (name.empty()) return {};
    const auto files = listConfigAssetFiles();
    const auto found =
        std::find_if(files.begin(), files.end(), [&](const auto& file) { return file.filename() == name; });
    return found == files.end() ? std::string() : found->native();
}

}  // namespace tarnwick
