// The file /etc/tarnwick/volumes.plist.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "plist/property_list.h"

namespace tarnwick {

struct VolumeSettings {
    std::map<std::string, std::string> roles;  // by file system UUID, partition UUID, device name or label
    std::string prebootDirectory = "/boot";
    bool includeRemovable = false;
};

// With a `problem` only a listing for people may use `settings`: they lack what could not be read, and what volctl
// decided by them could be the opposite of what the owner wrote.
struct SettingsReading {
    VolumeSettings settings;
    std::string problem;  // what is wrong and how to correct it; empty: nothing
};

// A missing key keeps its default. A value of another type is a problem, and then all settings are the defaults; so is
// an unknown role name, and then the settings are as written.
SettingsReading readVolumeSettings(const PropertyListDictionary& dictionary);

// As above, for a file. A missing file is no problem. One that fails openTrustedFile's checks, or does not parse, is.
SettingsReading loadVolumeSettings(const std::filesystem::path& file);

}  // namespace tarnwick
