// The role of a volume: what it is used for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "volume_settings.h"

namespace tarnwick {

bool isRoleName(std::string_view text);

// All role names as a list in a message.
std::string roleNames();

// The facts that decide a role; each is empty where not known.
struct RoleEvidence {
    std::string uuid;
    std::string partitionUuid;
    std::vector<std::string> deviceNames;
    std::string label;
    std::string partitionType;
    std::string fileSystem;
    std::vector<std::string> mountPoints;
    bool isImage = false;             // its device shows a file, as a loop device does
    bool isEncrypted = false;         // a LUKS device that is locked, or that unlockVolume has opened
    bool atPrebootDirectory = false;  // a separate file system is mounted there
};

// The role by the first rule that matches: an entry of the settings; Data at /; Other for an image;
// `prebootDirectoryRole` at the PrebootDirectory, unless the partition type says System, Swap or Preboot; the partition
// type; Data for a device with `isEncrypted`; Data at or below /home, /srv and /var; Other.
std::string roleOf(const RoleEvidence& evidence, const VolumeSettings& settings, std::string_view prebootDirectoryRole);

// At or below /home, /srv or /var.
bool isBelowDataFolder(std::string_view path);

}  // namespace tarnwick
