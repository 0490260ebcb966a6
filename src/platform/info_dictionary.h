// The executable's embedded information dictionary, and the information dictionaries of installed bundles.
#pragma once

#include <optional>
#include <string_view>

#include "plist/property_list.h"

namespace tarnwick {

// The value stored under `key` in the dictionary that the build placed in this executable, or nothing.
std::optional<PropertyListValue> lookupOwnInfoValue(std::string_view key);

struct Bundle {
    PropertyListDictionary info;
};

// The installed bundle of that identifier, /usr/lib/tarnwick/bundles/<identifier>/Info.plist. The file must be
// trustworthy in the sense of readTrustedPropertyListFile. An identifier that is not one plain file name finds nothing.
std::optional<Bundle> findBundleByIdentifier(std::string_view identifier);

std::optional<PropertyListValue> lookupBundleInfoValue(const Bundle& bundle, std::string_view key);

}  // namespace tarnwick
