// Finds the blocks of a damaged archive without its index.
#pragma once

#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

// Finds every block that can be unsealed, also after damage and out of order. Of several copies of a block it
// takes the first in the file. From an
// intact block the search continues at its end; elsewhere it tries every place that looks like a block header.
BlockMap scanForBlocks(const ArchiveFile& file, const MessageKeys& keys);

}  // namespace tarnwick::qvx
