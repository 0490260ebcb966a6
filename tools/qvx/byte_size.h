// Sizes, and how they are given on the command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarnwick::qvx {

inline constexpr std::size_t mebibyte = 1048576;

// Bytes: a number, with K, M, G or T for powers of 1024. None for anything else, and for what 64 bits cannot hold.
std::optional<std::uint64_t> parseSize(std::string_view text);

}  // namespace tarnwick::qvx
