// A hash of paths that no archive can make collide.
#pragma once

#include <string_view>

#include "qvx/read/entry_sum.h"

namespace tarnwick::qvx {

// Each object has a random key. Two given paths have the same hash with a probability of 1 in 2^64.
class PathHash {
public:
    std::uint64_t of(std::string_view path);

private:
    const EntrySum::Key key_ = EntrySum::randomKey();
    ContentDigest digest_;
};

}  // namespace tarnwick::qvx
