// The configuration of the asset service, /etc/tarnwick/asset-service.plist, and the URLs that are allowed.
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

// False when there is no such file, and when another user could have made or changed it (a link, not owned by root,
// writable by group or others).
bool assetServiceConfigured(const std::filesystem::path& file);

// Reads the file and the key that it names. The key file must be owned and protected in the same way.
AssetResult<AssetConfiguration> readAssetConfiguration(const std::filesystem::path& file);

// https, file, or http to a loopback address: plain HTTP must not leave the machine.
bool acceptableUrl(const std::string& url);

// Whether two URLs have the same scheme.
bool sameScheme(const std::string& left, const std::string& right);

// Resolves `reference` relative to the URL `base`. Nothing when the result is malformed, not allowed, or of another
// scheme.
std::optional<std::string> resolveUrl(const std::string& base, const std::string& reference);

}  // namespace tarnwick
