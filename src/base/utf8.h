// Reads UTF-8 from text that may be anything: names from disks and archives, property lists.
#pragma once

#include <cstddef>
#include <string_view>

namespace tarnwick {

struct Character {
    std::size_t length = 0;  // in bytes; 0 for a byte that is not part of UTF-8
    char32_t point = 0;
};

// The first character of `text`, which must not be empty (RFC 3629, section 4).
Character firstCharacter(std::string_view text);

bool isUtf8(std::string_view text);

// Whether the character can be printed as it is: it is UTF-8 and not invisible (invisible_characters.h).
bool isPrintable(const Character& character);

}  // namespace tarnwick
