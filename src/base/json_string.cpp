#include "base/json_string.h"

#include <algorithm>

#include "base/utf8.h"

namespace tarnwick {

std::string jsonString(std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string json = "\"";
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (character.length == 0) {
            json += {'\\', 'u', 'd', 'c', digits[byte >> 4], digits[byte & 15]};
        } else if (!isPrintable(character)) {  // all characters that are not printable are below 65536
            json += "\\u";
            for (int shift = 12; shift >= 0; shift -= 4) json += digits[character.point >> shift & 15];
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
