// A symmetric key.
#pragma once

#include <array>
#include <cstdint>

namespace tarnwick::qvx {

// Wiped by the destructor; so is every copy.
struct SecretKey {
    SecretKey() = default;
    SecretKey(const SecretKey&) = default;
    SecretKey& operator=(const SecretKey&) = default;
    ~SecretKey();

    std::array<std::uint8_t, 32> bytes{};
};

}  // namespace tarnwick::qvx
