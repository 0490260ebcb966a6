// The size of the pieces in which files are written.
#pragma once

#include <cstddef>

namespace tarnwick {

// The page cache stores the data of a write in units of the size of that write. The kernel keeps free units of up to 8
// pages ready for each core, and must search for larger ones. Writes of 1 MiB took up to five times as long.
constexpr std::size_t writePiece = 32768;  // bytes

}  // namespace tarnwick
