// Makes names from a disk safe for a terminal and for a property list.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// The text with every byte of an invisible character (invisible_characters.h), and every byte that is not part of valid
// UTF-8, written as \xNN.
std::string visibleText(std::string_view bytes);

// The same for a path or name in a message, with the backslash escaped too, so that the original bytes can be restored.
std::string escapedName(std::string_view name);

// Whether the text contains only letters, digits, blanks and the bytes / . _ - : @ + , = ~. The caller of volctl
// puts mount points and device names into shell commands, so its property lists contain no other bytes.
bool isPlainName(std::string_view bytes);

}  // namespace tarnwick
