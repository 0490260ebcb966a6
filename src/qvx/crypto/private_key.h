// The recipient's private key, as it stands in a PEM file.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "qvx/crypto/hpke.h"

namespace tarnwick::qvx {

// Asked at most once for one key, and only if it is encrypted; nothing means that there is none to be had. The text
// is wiped after use.
using PassphraseSource = std::function<std::optional<std::string>()>;

enum class KeyFault { none, notAKey, openSshForm, notP256, noPassphrase, wrongPassphrase };

struct ParsedKey {
    KeyHandle key;  // null exactly when there is a fault
    KeyFault fault = KeyFault::none;
};

// A P-256 key in PKCS#8 (plain or encrypted) or SEC1 form; other PEM blocks before it are passed over.
ParsedKey parsePrivateKey(std::string_view pem, const PassphraseSource& passphrase);

// The unencrypted PKCS#8 form. Empty on failure. The caller wipes it.
std::string privateKeyPem(EVP_PKEY* key);

}  // namespace tarnwick::qvx
