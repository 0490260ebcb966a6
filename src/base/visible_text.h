// Makes names from a disk safe for a terminal and for a property list.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// The text with every control byte, and every byte that is not part of valid UTF-8, written as \xNN.
std::string visibleText(std::string_view bytes);

// Whether the text contains only letters, digits, blanks and the bytes / . _ - : @ + , = ~. A program that calls this
// one pastes mount points and device names into shell commands, so no other byte may be printed.
bool isPlainName(std::string_view bytes);

}  // namespace tarnwick
