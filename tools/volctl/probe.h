// What a device holds, by the bytes on it.
#pragma once

#include <functional>
#include <string>

#include "block_devices.h"

namespace tarnwick {

enum class Content {
    fileSystem,
    swap,
    encrypted,  // a locked container: LUKS and its like
    member,     // a part of something larger (physical volume, RAID member), or an outer journal
    nothing,    // looked, and found nothing
    unknown,    // could not look, or more than one answer fits
};

struct ProbeAnswer {
    Content content = Content::unknown;
    std::string type;           // "ext4", "btrfs", "crypto_LUKS", ...; empty: not known
    std::string uuid;           // of the file system or container; empty: not known
    std::string label;          // raw bytes
    std::string partitionType;  // GUID in lower case for GPT, "0x83" for a DOS table; empty: no partition
    std::string partitionUuid;
    std::string partitionName;  // raw bytes
};

using Prober = std::function<ProbeAnswer(const BlockDevice&)>;

// Opens and reads the device.
ProbeAnswer probeDevice(const BlockDevice& device);

}  // namespace tarnwick
