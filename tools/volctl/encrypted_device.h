// Opens and closes LUKS containers.
#pragma once

#include <string>

#include "block_devices.h"

namespace tarnwick {

// The name of the mapping under which this program opens a device; no other program uses it.
std::string mappingName(const std::string& deviceName);

// Opens `device` read-only under its mapping name. Returns the problem, empty on success: no LUKS header, three wrong
// passphrases, or one wrong key from the descriptor. Never writes to the device, not even to repair its header.
std::string openEncryptedDevice(const BlockDevice& device, int keyDescriptor);

// Closes the mapping. Returns the problem, empty on success.
std::string closeEncryptedDevice(const std::string& mapping);

}  // namespace tarnwick
