// The catalog of the asset service: its parser and its path rule.
#include <algorithm>
#include <filesystem>

#include "platform/assets/asset_catalog.h"
#include "require.h"

using namespace tarnwick;

namespace {

// Independent of the rule under test: checks where the standard library says that the path leads.
void requireInside(const std::string& path) {
    const auto joined = std::filesystem::path("/store") / path;
    require(joined.lexically_normal() == joined && joined.native().starts_with("/store/"));
    require(std::none_of(path.begin(), path.end(), [](unsigned char c) { return c < ' '; }) && !path.ends_with('/'));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(textOf(data, size));
    if (acceptableAssetPath(input)) requireInside(input);
    const auto catalog = parseCatalog(input);
    if (!catalog) return 0;
    require(catalog->serial >= 0);
    for (const auto& asset : catalog->assets) {
        require(acceptableAssetType(asset.type) && asset.type.find('/') == std::string::npos &&
                asset.type.front() != '.');
        require(asset.version >= AssetVersion{} && !asset.files.empty());
        std::string paths = "\n";  // no path contains a line feed
        for (const auto& file : asset.files) {
            requireInside(file.path);
            require(paths.find('\n' + file.path + '\n') == std::string::npos);
            require(paths.find('\n' + file.path + '/') == std::string::npos);
            paths += file.path + '\n';
            require(file.sha256.size() == 64 && file.sha256.find_first_not_of("0123456789abcdef") == std::string::npos);
            require(!file.url.empty() && file.size <= INT64_MAX);
        }
    }
    return 0;
}
