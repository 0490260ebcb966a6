// Sizes as they are given on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarnwick::qvx {

// Bytes: a number, with K, M, G or T for powers of 1024. None for anything else, and for what 64 bits cannot hold.
std::optional<std::uint64_t> parseSize(std::string_view text);

}  // namespace tarnwick::qvx
