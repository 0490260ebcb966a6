// Making a locked or unmounted volume readable, and undoing it.
#pragma once

#include <string>

#include "volumes.h"

namespace tarnwick {

// Opens the volume read-only if it is locked, then mounts it read-only below /run/tarnwick/volumes. Nothing is ever
// written to its device. A mounted volume is left as it is. The passphrase is asked for on the terminal, or read from
// the descriptor `keyDescriptor` (to its end, as it stands) unless that is negative.
// Returns the problem, empty when all is well; then nothing is left open or mounted.
std::string unlockVolume(const Volume& volume, int keyDescriptor);

// Undoes what unlockVolume did for the volume. Returns the problem, empty when all is well; `undone` tells whether
// there was anything to do.
std::string lockVolume(const Volume& volume, bool& undone);

}  // namespace tarnwick
