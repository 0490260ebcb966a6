// Opens and closes LUKS devices.
#pragma once

#include <string>

#include "base/error.h"
#include "block_devices.h"

namespace tarnwick {

// The name of the mapping under which this program opens a device; no other program uses it.
std::string mappingName(const std::string& deviceName);

// Opens `device` read-only under its mapping name. Fails without a usable LUKS header, after three wrong passphrases
// from the terminal, and after one wrong passphrase from the descriptor (negative: ask on the terminal). Never writes
// to the device, not even to repair its header.
Status openEncryptedDevice(const BlockDevice& device, int keyDescriptor);

Status closeEncryptedDevice(const std::string& mapping);

}  // namespace tarnwick
