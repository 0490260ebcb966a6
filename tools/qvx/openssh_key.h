// Private keys in OpenSSH's own form, which ssh-keygen writes by default.
#pragma once

#include <string>
#include <string_view>

#include "qvx/crypto/private_key.h"

namespace tarnwick::qvx {

bool isOpensshKey(std::string_view text);

// Parses such a key as parsePrivateKey() does others. `text` ends with its first zero byte.
Result<KeyHandle> parseOpensshKey(const std::string& text, const PassphraseSource& passphrase);

}  // namespace tarnwick::qvx
