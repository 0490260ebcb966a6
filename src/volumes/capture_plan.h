// Which volumes a run searches.
#pragma once

#include <vector>

#include "volumes/volume_info.h"

namespace tarnwick {

// Mounted data volumes in the order of the walk: the last volume of the last group of the last container comes first.
using CapturePlan = std::vector<VolumeInfo>;

// Lists all volumes through volctl, keeps those whose role is exactly "Data", and mounts what is not mounted, which may
// ask the user for a passphrase, in every mode. A volume that stays unmounted is left out with a warning. An answer of
// volctl that lacks its structure ends the run through raiseFatal, after the volumes before the fault were handled.
CapturePlan buildCapturePlan();

}  // namespace tarnwick
