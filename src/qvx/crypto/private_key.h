// Reads and writes the private key of the recipient in PEM form.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/passphrase.h"
#include "qvx/crypto/hpke.h"

namespace tarnwick::qvx {

// Fills in the passphrase, or fails with the reason why there is none. Called at most once for a key, and only if the
// key is encrypted.
using PassphraseSource = std::function<Status(Passphrase&)>;

// Parses a P-256 key in PKCS#8 (plain or encrypted) or SEC1 form. Other PEM blocks before it are skipped. Without a
// source, encrypted keys are refused.
Result<KeyHandle> parsePrivateKey(std::string_view pem, const PassphraseSource& passphrase = {});

// The key in unencrypted PKCS#8 form. The caller wipes it. Fails when the library does.
Result<std::string> privateKeyPem(EVP_PKEY* key);

// The key in PKCS#8 form, encrypted with the passphrase, which must not be empty.
Result<std::string> encryptedKeyPem(EVP_PKEY* key, const Passphrase& passphrase);

}  // namespace tarnwick::qvx
