// Where the asset service gets its catalog from: /etc/tarnwick/asset-service.plist, and the URLs that are allowed.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "platform/assets/asset_result.h"

namespace tarnwick {

struct AssetConfiguration {
    std::string catalogUrl;  // allowed by acceptableUrl
    std::string catalogKey;  // PEM
};

// False when there is no such file, or one that could be somebody else's doing (a link, not
// owned by root, writable by group or others).
bool assetServiceConfigured(const std::filesystem::path& file);

// Reads the file and the key that it names, for which the same rule of ownership holds.
AssetResult readAssetConfiguration(const std::filesystem::path& file, AssetConfiguration& configuration);

// https, file, or http to a loopback address: plain HTTP may not leave the machine.
bool acceptableUrl(const std::string& url);

// Whether two URLs have the same scheme.
bool sameScheme(const std::string& left, const std::string& right);

// What `reference` means on the page `base`. Nothing when that is malformed, not allowed, or of another scheme.
std::optional<std::string> resolveUrl(const std::string& base, const std::string& reference);

}  // namespace tarnwick
