// An archive that comes through a pipe.
#pragma once

#include "base/handle.h"
#include "qvx/read/byte_source.h"

namespace tarnwick::qvx {

// Each byte can be read once. A read after bytes that were not read keeps these until they are read, in whatever order:
// at most 32 MiB, more than the blocks that a BlockPipeline has in progress. Reads wait for the pipe.
std::unique_ptr<ByteSource> openStreamSource(FileDescriptor descriptor, StopQuestion interrupted);

}  // namespace tarnwick::qvx
