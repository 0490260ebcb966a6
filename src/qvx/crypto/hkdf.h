// HKDF-SHA256 (RFC 5869) in its two steps.
#pragma once

#include "qvx/bytes.h"

namespace tarnwick::qvx {

// Each fails only when the cipher library does. `out` of hkdfExtract() has 32 bytes.
bool hkdfExtract(Bytes salt, Bytes material, MutableBytes out);
bool hkdfExpand(Bytes key, Bytes info, MutableBytes out);

}  // namespace tarnwick::qvx
