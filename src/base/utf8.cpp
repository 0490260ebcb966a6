#include "base/utf8.h"

#include "base/invisible_characters.h"

namespace tarnwick {

namespace {

unsigned byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

}  // namespace

Character firstCharacter(std::string_view text) {
    const auto lead = byteAt(text, 0);
    if (lead < 0x80) return {1, lead};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {};
    char32_t point = lead & (0xffU >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) {
        if ((byteAt(text, at) & 0xc0) != 0x80) return {};
        point = point << 6 | (byteAt(text, at) & 0x3f);
    }
    const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
    const bool surrogate = point >= 0xd800 && point < 0xe000;
    return overlong || surrogate || point > 0x10ffff ? Character{} : Character{length, point};
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const auto length = firstCharacter(text).length;
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool isPrintable(const Character& character) { return character.length > 0 && !isInvisible(character.point); }

}  // namespace tarnwick
