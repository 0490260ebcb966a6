// The XML form of property lists.
#pragma once

#include <string>

#include "platform/property_list.h"

namespace tarnwick {

// Parses a whole document. Strict: unknown elements, a missing or second root, a key without value, entity
// declarations and nesting past 512 give nothing.
std::optional<PropertyListValue> parseXmlPropertyList(std::string_view bytes);

// The document for `root`, with XML declaration, document type and a final line end. Control bytes that XML cannot
// hold are left out of strings.
std::string writeXmlPropertyList(const PropertyListValue& root);

}  // namespace tarnwick
