// The configuration asset: a configuration that replaces the one built into the executable. It came with the package or
// is brought onto this machine by the asset service. Everything here runs on the main thread, which blocks while the
// service works on its own.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/assets/asset_service.h"

namespace tarnwick {

// The local directory of the newest configuration asset, downloaded if need be, or the empty text when there is none.
// Where no service is configured this uses what is installed, at once, and logs nothing.
std::string fetchConfigAsset();

// Whether the service reported success in time: 30 seconds for the catalog, 1800 for an asset. A failure is logged as a
// warning. A request that was given up is not cancelled: its late answer finds nobody and does no harm.
bool downloadCatalog(const std::string& type);
bool downloadAsset(const Asset& asset);

// The asset of the highest version, or nothing for an empty list.
std::optional<Asset> pickNewestAsset(std::vector<Asset> assets);

// -1, 0 or 1: by content version, among equals by mastered version.
int compareAssetVersions(const Asset& left, const Asset& right);

}  // namespace tarnwick
