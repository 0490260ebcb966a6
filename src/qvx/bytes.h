// The byte types that the whole archive library uses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarnwick::qvx {

using Bytes = std::span<const std::uint8_t>;
using MutableBytes = std::span<std::uint8_t>;
using Digest = std::array<std::uint8_t, 32>;  // SHA-256
using Point = std::array<std::uint8_t, 65>;   // a public point of P-256: 0x04, X, Y
using Salt = std::array<std::uint8_t, 32>;    // random bytes in the header of an archive

inline constexpr std::size_t tagSize = 16;  // of AES-GCM

}  // namespace tarnwick::qvx
