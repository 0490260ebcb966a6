// A hash that no archive can make collide.
#pragma once

#include <array>
#include <string_view>

#include "qvx/bytes.h"

namespace tarnwick::qvx {

// SipHash-2-4 with a result of 128 bits. Without the key, nobody can choose two texts with the same hash: two given
// texts have it with a probability of 1 in 2^64 or 2^128. Any number of threads may use one object. Throws
// std::bad_alloc when the library fails.
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
