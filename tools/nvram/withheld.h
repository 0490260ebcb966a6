// Recognises firmware variables whose values are secrets.
#pragma once

#include <optional>
#include <string_view>

namespace tarnwick {

// Why the value of the variable `name` must not be shown ("a password", ...); none when it may be.
std::optional<std::string_view> whySecret(std::string_view name);

}  // namespace tarnwick
