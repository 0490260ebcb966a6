// The settings of an archive. Separate from the operations of the library, so that a test can set the key of the sender
// and get the same bytes every time.
#pragma once

#include <optional>

#include "platform/archive_library.h"
#include "qvx/crypto/hpke.h"

namespace tarnwick {

struct EncryptionContext {
    std::optional<qvx::Point> recipient;
    bool compressionSet = false;
    bool blockSizeSet = false;
    qvx::KeyHandle ephemeral;  // set only in tests; otherwise each stream generates a new key
};

}  // namespace tarnwick
