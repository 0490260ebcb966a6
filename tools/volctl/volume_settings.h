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

// When there is a `problem`, `settings` may only be used for a list that people read: they lack what could not be read,
// and decisions made with them could be the opposite of what the owner wrote.
struct SettingsReading {
    VolumeSettings settings;
    std::string problem;  // what is wrong and how to correct it; empty: nothing
};

// A missing key keeps its default. A value of a wrong type is a problem, and all settings are then the defaults. An
// unknown role name is a problem, and the settings are then as written.
SettingsReading readVolumeSettings(const PropertyListDictionary& dictionary);

// The same for a file. A missing file is not a problem. A file that openTrustedFile refuses, or that does not parse, is
// one.
SettingsReading loadVolumeSettings(const std::filesystem::path& file);

}  // namespace tarnwick
