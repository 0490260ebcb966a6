// Finds the blocks of a damaged archive without its index.
#pragma once

#include "qvx/read/block_reader.h"

namespace tarnwick::qvx {

struct BlockScan {
    BlockMap map;
    bool complete = true;  // false if the search ended early, among false block headers
};

// Finds every block that can be unsealed, also after damage and out of order. Of several copies of a block it uses the
// first in the file. From an intact block the search continues at its end; elsewhere it tries every place that looks
// like a block header.
BlockScan scanForBlocks(const ArchiveFile& file, const MessageKeys& keys);

}  // namespace tarnwick::qvx
