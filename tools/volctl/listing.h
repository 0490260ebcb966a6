// The volumes as a table for people, and as JSON for programs.
#pragma once

#include <string>
#include <vector>

#include "volumes.h"

namespace tarnwick {

// One line for each volume below its container and group, columns padded, control bytes escaped. The line of a volume
// that is left out gives the reason. Ends with a line end.
std::string volumeTable(const std::vector<Volume>& volumes);

// One JSON object a line for each volume. What is not known is absent; volctl(8) describes the members.
std::string volumeJson(const std::vector<Volume>& volumes);

// The rows one below the other, each column as wide as its widest cell, with two blanks between columns. A row has at
// least one cell, and all have as many as the first.
std::string alignedTable(const std::vector<std::vector<std::string>>& rows);

// A size in units that people use: "512 B", "1.5 GiB"; "-" for 0.
std::string sizeText(std::uint64_t bytes);

}  // namespace tarnwick
