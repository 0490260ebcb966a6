// Makes a locked or unmounted volume readable, and undoes that.
#pragma once

#include "base/error.h"
#include "volumes.h"

namespace tarnwick {

// Opens the volume read-only if it is locked, then mounts it read-only below /run/tarnwick/volumes. Never writes to its
// device. Does nothing for a mounted volume. Asks for the passphrase on the terminal or, if `keyDescriptor` is not
// negative, reads it from that descriptor (to its end, unchanged). After a failure nothing is left open or mounted.
Status unlockVolume(const Volume& volume, int keyDescriptor);

// Undoes what unlockVolume did for the volume. False when there was nothing to undo.
Result<bool> lockVolume(const Volume& volume);

}  // namespace tarnwick
