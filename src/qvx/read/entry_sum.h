// Whether two sets of entries are the same, whatever their order.
#pragma once

#include <array>
#include <vector>

#include "qvx/format/content_digest.h"
#include "qvx/format/index_codec.h"

namespace tarnwick::qvx {

// The sum of one hash for each entry, over all that the index says about it. If two sums with the same key
// are equal, they are of the same entries: without the key, nobody can find other entries that have the same sum.
class EntrySum {
public:
    using Key = std::array<std::uint8_t, 32>;
    static Key randomKey();

    explicit EntrySum(const Key& key) : text_(key.begin(), key.end()) {}

    void add(std::uint64_t number, const IndexEntry& entry);

    bool operator==(const EntrySum& other) const { return sum_ == other.sum_; }

private:
    std::vector<std::uint8_t> text_;  // the key, and what is hashed
    ContentDigest digest_;
    std::array<std::uint64_t, 4> sum_{};
};

}  // namespace tarnwick::qvx
