// The file /etc/tarnwick/volumes.plist.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "base/error.h"
#include "plist/property_list.h"

namespace tarnwick {

struct VolumeSettings {
    std::map<std::string, std::string> roles;  // by file system UUID, partition UUID, device name or label
    std::string prebootDirectory = "/boot";
    bool includeRemovable = false;
};

// When `status` is a failure, `settings` may only be used for a list that people read: they lack what could not be
// read, and decisions made with them could be the opposite of what the owner wrote. The error says how to correct the
// file.
struct SettingsReading {
    VolumeSettings settings;
    Status status;
};

// A missing key keeps its default. After a value of a wrong type, all settings are the defaults. After an unknown role
// name, which is an error too, the settings are as written.
SettingsReading readVolumeSettings(const PropertyListDictionary& dictionary);

// The same for a file. A missing file is no error. A file that openTrustedFile refuses, or that does not parse, is one.
SettingsReading loadVolumeSettings(const std::filesystem::path& file);

}  // namespace tarnwick
