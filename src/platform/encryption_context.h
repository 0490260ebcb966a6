// The settings of an archive. Apart from the library's operations so that a test can fix the sender's key and get the
// same bytes every time.
#pragma once

#include <optional>

#include "platform/archive_library.h"
#include "qvx/crypto/hpke.h"

namespace tarnwick {

struct EncryptionContext {
    std::optional<qvx::Point> recipient;
    bool compressionSet = false;
    bool blockSizeSet = false;
    qvx::KeyHandle ephemeral;  // none, but in tests: a new one for every stream
};

}  // namespace tarnwick
