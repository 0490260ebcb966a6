// The binary form of property lists, "bplist00": a header of 8 bytes, the objects, a table of object offsets, and a
// trailer of 32 bytes that says where the table stands, how wide its entries are, and which object is the root.
#pragma once

#include "plist/property_list.h"

namespace tarnwick {

// Whether `bytes` begin as the binary form does.
bool looksLikeBinaryPropertyList(std::string_view bytes);

// Parses a whole document. Every offset, count and reference is checked against the input; cycles of references,
// nesting past 512 and documents whose shared references would grow past what their size justifies give nothing.
std::optional<PropertyListValue> parseBinaryPropertyList(std::string_view bytes);

}  // namespace tarnwick
