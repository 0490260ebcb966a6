// Counts what is read of an archive, for the report of progress.
#pragma once

#include <memory>
#include <string>

#include "qvx/read/byte_source.h"

namespace tarnwick::qvx {

// Begins the progress of the archive. The name is what messages call it.
std::unique_ptr<ByteSource> countedSource(std::unique_ptr<ByteSource> source, std::string name);

}  // namespace tarnwick::qvx
