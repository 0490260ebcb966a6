// Whether a file system has space for more bytes that an archive demands.
#pragma once

#include <cstdint>

#include "base/error.h"

namespace tarnwick::qvx {

// For the file system of one open file or directory. 5 % of it remain free, but not more than 1 GiB.
class FreeSpace {
public:
    // Counts bytes that will be written now. Fails, without a code, if they may not be written.
    Status charge(int file, std::uint64_t bytes);

private:
    std::uint64_t unchecked_ = 0;  // bytes that can be written before the free space is looked at again
};

}  // namespace tarnwick::qvx
