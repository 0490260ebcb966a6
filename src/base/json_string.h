// Arbitrary bytes as a JSON string.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// `text` as a JSON string. A byte that is not part of UTF-8 becomes the lone surrogate U+DC80 to U+DCFF, so that
// nothing is lost.
std::string jsonString(std::string_view text);

}  // namespace tarnwick
