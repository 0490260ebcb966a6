// Text in UTF-8 that may be anything: names from disks and archives, property lists.
#pragma once

#include <cstddef>
#include <string_view>

namespace tarnwick {

struct Character {
    std::size_t length = 0;  // in bytes; 0 for a byte that is not part of UTF-8
    char32_t point = 0;
};

// The character at the beginning of `text`, which is not empty (RFC 3629, section 4).
Character firstCharacter(std::string_view text);

bool isUtf8(std::string_view text);

// Whether somebody who reads it sees it, and no more than it: not a control, which terminals obey, and not what breaks
// the line, turns the direction of writing or has no width.
bool isPrintable(const Character& character);

}  // namespace tarnwick
