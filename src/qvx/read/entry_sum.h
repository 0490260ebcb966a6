// Whether two sets of entries are the same, whatever their order.
#pragma once

#include <vector>

#include "qvx/format/index_codec.h"
#include "qvx/read/keyed_hash.h"

namespace tarnwick::qvx {

// The sum of one hash for each entry, over all that the index says about it. If two sums with the same key
// are equal, they are of the same entries: without the key, nobody can find other entries that have the same sum.
class EntrySum {
public:
    explicit EntrySum(const KeyedHash& hash) : hash_(hash) {}

    void add(std::uint64_t number, const IndexEntry& entry);

    bool operator==(const EntrySum& other) const { return sum_ == other.sum_; }

private:
    const KeyedHash hash_;
    std::vector<std::uint8_t> text_;  // what is hashed
    KeyedHash::Wide sum_{};
};

}  // namespace tarnwick::qvx
