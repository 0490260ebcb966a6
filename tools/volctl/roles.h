// What a volume is for.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/property_list.h"

namespace tarnwick {

// The file /etc/tarnwick/volumes.plist.
struct VolumeSettings {
    std::map<std::string, std::string> roles;  // by file system UUID, partition UUID, device name or label
    std::string prebootDirectory = "/boot";
    bool includeRemovable = false;
};

// The settings of `dictionary`; a key missing or of another type keeps its default.
VolumeSettings readVolumeSettings(const PropertyListDictionary& dictionary);

// What speaks for a role, each empty where not known.
struct RoleEvidence {
    std::string uuid;
    std::string partitionUuid;
    std::vector<std::string> deviceNames;
    std::string label;
    std::string partitionType;
    std::vector<std::string> mountPoints;
};

// The first that matches: the settings, the partition type, the mount points; "Other" when none does.
std::string roleOf(const RoleEvidence& evidence, const VolumeSettings& settings);

// Whether file names on such a file system may hold a colon, as the names of captures do.
bool allowsColons(std::string_view fileSystemType);

}  // namespace tarnwick
