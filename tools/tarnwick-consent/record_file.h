// Reading and changing the consent record of a mounted volume.
//
// The owner of a volume may have write access to every folder of it. No symbolic link is followed below the mount
// point, and no other mount is entered.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/error.h"
#include "plist/property_list.h"

namespace tarnwick {

// The record, or nothing when there is none. Fails when there is something that is not a readable record.
Result<std::optional<PropertyListDictionary>> readConsentRecord(const std::string& mountPoint);

// Applies `change` to the record, or to an empty one, and replaces it on disk. Folders that are missing are made. On
// success everything is synced. After a failure the record is unchanged, unless only syncing its folder failed, and no
// new file or folder is left. A kill leaves the old record too, but perhaps also new folders and a temporary file.
Status changeConsentRecord(const std::string& mountPoint, const std::function<void(PropertyListDictionary&)>& change);

}  // namespace tarnwick
