// The XML form of property lists.
#pragma once

#include <string>

#include "plist/property_list.h"

namespace tarnwick {

// Parses a whole document in UTF-8, UTF-16 or another encoding that expat knows by itself. Strict: unknown elements,
// text outside values, a missing or second root, a key without value, an internal DTD subset (and so every entity
// declaration) and nesting past 512 give nothing. Of two equal keys the last one counts. Attributes are ignored.
std::optional<PropertyListValue> parseXmlPropertyList(std::string_view bytes);

// The document for `root`, with XML declaration, document type and a final line end. Bytes that XML cannot contain
// (control bytes, broken UTF-8) are left out of strings. A UID is written as an integer; a date loses its fraction of a
// second.
std::string writeXmlPropertyList(const PropertyListValue& root);

}  // namespace tarnwick
