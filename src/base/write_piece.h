// How much to give to a file at once.
#pragma once

#include <cstddef>

namespace tarnwick {

// The kernel keeps the memory of files at the size it was written in, and has pieces of up to 8 pages lying ready on
// each core. Larger ones it must look for: writing by the mebibyte took up to five times as long.
constexpr std::size_t writePiece = 32768;  // bytes

}  // namespace tarnwick
