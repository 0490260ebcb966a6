// The answer of the disk utility about one volume.
#pragma once

#include <string>

namespace tarnwick {

// An empty text means: not known.
struct VolumeInfo {
    std::string volumeName;
    std::string deviceIdentifier;
    std::string mountPoint;  // absolute; empty when the volume is not mounted
    std::string containerReference;
};

// Queries volctl about a volume (by device identifier, mount point, volume name or role name) and fills `info`. The
// identifier is put between double quotes unchanged. Returns false, with all fields empty, only when volctl ends with a
// nonzero status. An answer that cannot be parsed gives true with empty fields, so callers must treat an empty field as
// unknown. On internal builds "/tmp" needs no query.
bool queryVolumeInfo(const std::string& identifier, VolumeInfo& info);

}  // namespace tarnwick
