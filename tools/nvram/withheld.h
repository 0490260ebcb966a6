// Recognises firmware variables whose values are secrets.
#pragma once

#include <string_view>

namespace tarnwick {

// Why the value of the variable `name` must not be shown ("a password", ...); empty when it may be.
std::string_view secretIn(std::string_view name);

}  // namespace tarnwick
