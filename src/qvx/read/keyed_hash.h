// A hash that no archive can make collide.
#pragma once

#include <array>
#include <string_view>

#include "qvx/bytes.h"

namespace tarnwick::qvx {

// SipHash-2-4 with a result of 128 bits. The key is secret and random. So two texts that an archive chooses have the
// same hash with a probability of 1 in 2^128; for operator(), 1 in 2^64. Any number of threads may use one object.
// Throws std::bad_alloc when the library fails.
class KeyedHash {
public:
    using Key = std::array<std::uint8_t, 16>;
    using Wide = std::array<std::uint64_t, 2>;

    KeyedHash();  // with a random key
    explicit KeyedHash(const Key& key) : key_(key) {}

    [[nodiscard]] Wide wide(Bytes text) const;
    std::uint64_t operator()(std::string_view text) const;  // the first half of wide()

private:
    Key key_;
};

}  // namespace tarnwick::qvx
