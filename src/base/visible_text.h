// Names that come from a disk, made fit for a terminal and for a property list.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick {

// The text with every control byte, and every byte that is no part of valid UTF-8, written as \xNN.
std::string visibleText(std::string_view bytes);

// Whether the text holds nothing but letters, digits and the bytes / . _ - : @ + , = ~ and blank. Mount points and
// device names are pasted into shell commands by the program that asks, so that nothing else may leave this one.
bool isPlainName(std::string_view bytes);

}  // namespace tarnwick
