// Which volumes a run searches.
#pragma once

#include <vector>

#include "volumes/volume_info.h"

namespace tarnwick {

// Mounted data volumes in the order of the search: the last volume of the last group of the last container is first.
using CapturePlan = std::vector<VolumeInfo>;

// Lists all volumes through volctl and keeps those whose role is exactly "Data". Mounts those that are not mounted,
// which may ask the user for a passphrase, in every mode. A volume that cannot be mounted is left out with a warning.
// An answer of volctl with a wrong structure ends the run through raiseFatal, after the volumes before the fault were
// handled.
CapturePlan buildCapturePlan();

}  // namespace tarnwick
