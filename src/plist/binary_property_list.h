// The binary form of property lists, "bplist00": a header of 8 bytes, the objects, a table of object offsets, and a
// trailer of 32 bytes with the position of the table, the width of its entries and the number of the root object.
#pragma once

#include "plist/property_list.h"

namespace tarnwick {

// Whether `bytes` begin with the magic of the binary form.
bool looksLikeBinaryPropertyList(std::string_view bytes);

// Parses a whole document. Checks every offset, count and reference against the input. Nothing for cycles of
// references, nesting past 512, and documents whose shared references would grow past a fixed memory limit.
std::optional<PropertyListValue> parseBinaryPropertyList(std::string_view bytes);

}  // namespace tarnwick
