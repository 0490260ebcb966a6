// The information dictionaries of this executable (embedded) and of installed bundles.
#pragma once

#include <optional>
#include <string_view>

#include "plist/property_list.h"

namespace tarnwick {

// The value of `key` in the dictionary that the build embedded in this executable, or nothing.
std::optional<PropertyListValue> lookupOwnInfoValue(std::string_view key);

struct Bundle {
    PropertyListDictionary info;
};

// Finds the installed bundle /usr/lib/tarnwick/bundles/<identifier>/Info.plist. Reads it with
// readTrustedPropertyListFile. Nothing for an identifier that is not a plain file name.
std::optional<Bundle> findBundleByIdentifier(std::string_view identifier);

std::optional<PropertyListValue> lookupBundleInfoValue(const Bundle& bundle, std::string_view key);

}  // namespace tarnwick
