// The answers of volctl as property lists.
#pragma once

#include <vector>

#include "plist/property_list.h"
#include "volumes.h"

namespace tarnwick {

// Containers > VolumeGroups > Volumes, in the order of `volumes`; volumes that are left out do not appear.
PropertyListValue groupListing(const std::vector<Volume>& volumes);

// One volume. MountPoint is missing when it is not mounted, DiskUUID when it is not known.
PropertyListValue volumeInformation(const Volume& volume);

}  // namespace tarnwick
