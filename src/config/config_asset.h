// The configuration asset: a configuration that replaces the one built into the executable. The package installs it, or
// the asset service downloads it. Everything here runs on the main thread, which blocks while the thread of the service
// works.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/assets/asset_service.h"

namespace tarnwick {

// The local directory of the newest configuration asset, downloaded if needed; empty when there is none. Without a
// configured service it returns the installed asset at once and logs nothing.
std::string fetchConfigAsset();

// Whether the service reported success in time: 30 seconds for the catalog, 1800 for an asset. Logs a failure as a
// warning. A request that timed out is not cancelled; its late result is ignored.
bool downloadCatalog(const std::string& type);
bool downloadAsset(const Asset& asset);

// The asset of the highest version, or nothing for an empty list.
std::optional<Asset> pickNewestAsset(std::vector<Asset> assets);

// -1, 0 or 1. Compares the content version, then the mastered version.
int compareAssetVersions(const Asset& left, const Asset& right);

}  // namespace tarnwick
