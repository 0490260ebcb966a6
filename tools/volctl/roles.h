// What a volume is for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "volume_settings.h"

namespace tarnwick {

bool isRoleName(std::string_view text);

// All role names as a list for people.
std::string roleNames();

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

// At or below /home, /srv or /var.
bool isBelowDataFolder(std::string_view path);

// Whether file names on such a file system may hold a colon, as the names of captures do.
bool allowsColons(std::string_view fileSystemType);

}  // namespace tarnwick
