// Makes a locked or unmounted volume readable, and undoes that.
#pragma once

#include <string>

#include "volumes.h"

namespace tarnwick {

// Opens the volume read-only if it is locked, then mounts it read-only below /run/tarnwick/volumes. Never writes to its
// device. Does nothing for a mounted volume. Asks for the passphrase on the terminal or, if `keyDescriptor` is not
// negative, reads it from that descriptor (to its end, unchanged). Returns the problem, empty on success; on a problem
// nothing is left open or mounted.
std::string unlockVolume(const Volume& volume, int keyDescriptor);

// Undoes what unlockVolume did for the volume. Returns the problem, empty on success; `undone` says whether there was
// anything to undo.
std::string lockVolume(const Volume& volume, bool& undone);

}  // namespace tarnwick
