// The volumes as a table for people.
#pragma once

#include <string>
#include <vector>

#include "volumes.h"

namespace tarnwick {

// One line a volume under its container and group, columns padded, control bytes escaped; volumes that are left out
// say why. Ends with a line end.
std::string volumeTable(const std::vector<Volume>& volumes);

// A size as people say it: "512 B", "1.5 GiB"; "-" for 0.
std::string sizeText(std::uint64_t bytes);

}  // namespace tarnwick
