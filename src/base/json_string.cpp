#include "base/json_string.h"

#include <algorithm>

#include "base/utf8.h"

namespace tarnwick {

namespace {

constexpr char digits[] = "0123456789abcdef";

std::string escapedUnit(char32_t unit) {
    return {'\\', 'u', digits[unit >> 12 & 15], digits[unit >> 8 & 15], digits[unit >> 4 & 15], digits[unit & 15]};
}

// JSON escapes the units of UTF-16.
std::string escaped(char32_t character) {
    if (character < 0x10000) return escapedUnit(character);
    const char32_t offset = character - 0x10000;
    return escapedUnit(0xd800 + (offset >> 10)) + escapedUnit(0xdc00 + (offset & 0x3ff));
}

}  // namespace

std::string jsonString(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (character.length == 0) {
            json += escapedUnit(0xdc00 + byte);
        } else if (!isPrintable(character)) {
            json += escaped(character.point);
        } else if (byte == '"' || byte == '\\') {
            json += {'\\', text[0]};
        } else {
            json += text.substr(0, character.length);
        }
        text.remove_prefix(std::max<std::size_t>(character.length, 1));
    }
    return json + '"';
}

}  // namespace tarnwick
