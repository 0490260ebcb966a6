// What a device contains, found from the bytes on it.
#pragma once

#include <functional>
#include <string>

#include "block_devices.h"

namespace tarnwick {

enum class Content {
    fileSystem,
    swap,
    encrypted,  // an encrypted device, such as LUKS
    member,     // part of a larger whole (physical volume, RAID member), or an external journal
    nothing,    // nothing was found
    unknown,    // could not read the device, or more than one answer fits
};

struct ProbeAnswer {
    Content content = Content::unknown;
    std::string type;           // "ext4", "btrfs", "crypto_LUKS", ...; empty: not known
    std::string uuid;           // of the file system or encrypted device; empty: not known
    std::string label;          // raw bytes
    std::string partitionType;  // GUID in lower case for GPT, "0x83" for a DOS table; empty: no partition
    std::string partitionUuid;
    std::string partitionName;  // raw bytes
};

using Prober = std::function<ProbeAnswer(const BlockDevice&)>;

// Opens and reads the device.
ProbeAnswer probeDevice(const BlockDevice& device);

}  // namespace tarnwick
