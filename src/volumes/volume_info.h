// What the disk utility says of one volume.
#pragma once

#include <string>

namespace tarnwick {

// Empty text: not known.
struct VolumeInfo {
    std::string volumeName;
    std::string deviceIdentifier;
    std::string mountPoint;  // absolute; empty when the volume is not mounted
    std::string containerReference;
};

// Asks volctl about a volume, by device identifier, mount point, volume name or role name, and fills `info`. The
// identifier is pasted between double quotes as it is. Returns false, with all fields empty, only when volctl ends
// with a nonzero status; an answer that cannot be understood is true with empty fields, so callers must take an empty
// field for an unknown value. On internal builds "/tmp" answers for itself without a command.
bool queryVolumeInfo(const std::string& identifier, VolumeInfo& info);

}  // namespace tarnwick
