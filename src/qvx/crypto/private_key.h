// Reads and writes the private key of the recipient in PEM form.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "qvx/crypto/hpke.h"

namespace tarnwick::qvx {

// Called at most once for a key, and only if the key is encrypted. Returns nothing when there is no passphrase. The
// text is wiped after use.
using PassphraseSource = std::function<std::optional<std::string>()>;

enum class KeyFault { none, notAKey, openSshForm, notP256, noPassphrase, wrongPassphrase };

struct ParsedKey {
    KeyHandle key;  // null if and only if there is a fault
    KeyFault fault = KeyFault::none;
};

// Parses a P-256 key in PKCS#8 (plain or encrypted) or SEC1 form. Other PEM blocks before it are skipped.
ParsedKey parsePrivateKey(std::string_view pem, const PassphraseSource& passphrase);

// The key in unencrypted PKCS#8 form. Empty on failure. The caller wipes it.
std::string privateKeyPem(EVP_PKEY* key);

}  // namespace tarnwick::qvx
