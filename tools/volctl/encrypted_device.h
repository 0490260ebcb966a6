// LUKS containers.
#pragma once

#include <string>

#include "block_devices.h"

namespace tarnwick {

// The name of the mapping that this program opens a device under; nobody else uses it.
std::string mappingName(const std::string& deviceName);

// Opens `device` read-only under its mapping name. Returns the problem, empty when it is open: no LUKS header, three
// wrong passphrases, one wrong key on the descriptor. The device is not written to, not even to mend its header.
std::string openEncryptedDevice(const BlockDevice& device, int keyDescriptor);

// Closes the mapping. Returns the problem.
std::string closeEncryptedDevice(const std::string& mapping);

}  // namespace tarnwick
