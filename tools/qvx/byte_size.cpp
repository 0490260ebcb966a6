#include "byte_size.h"

#include <charconv>

namespace tarnwick::qvx {

std::optional<std::uint64_t> parseSize(std::string_view text) {
    constexpr std::string_view units = "KMGT";
    constexpr std::size_t none = std::string_view::npos;
    const std::size_t unit = text.empty() ? none : units.find(text.back());
    if (unit != none) text.remove_suffix(1);
    const unsigned shift = unit == none ? 0 : static_cast<unsigned>(10 * (unit + 1));
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool valid = error == std::errc() && end == text.data() + text.size() && number << shift >> shift == number;
    return valid ? std::optional(number << shift) : std::nullopt;
}

}  // namespace tarnwick::qvx
