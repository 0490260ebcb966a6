// Finds the volume that a person or a program names.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"
#include "volumes.h"

namespace tarnwick {

// Finds a volume by the role name Preboot, a device name, a mount point or a volume name, tried in this order. Fails
// while machine.settingsStatus is a failure, and for a volume that is left out.
Result<Volume> lookUpVolume(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier);

}  // namespace tarnwick
