// Hybrid public-key encryption (RFC 9180), base mode, DHKEM(P-256, HKDF-SHA256) with HKDF-SHA256: one key agreement
// gives both sides the keys for any number of messages (message_cipher.h). Built from primitives of OpenSSL.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/handle.h"
#include "qvx/crypto/message_cipher.h"

namespace tarnwick::qvx {

// Initialises the cipher library, unless that is done. When it returns false, the library must not be used: its
// functions assume that the initialisation succeeded, and crash.
bool startCipherLibrary();

using KeyHandle = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using Scalar = std::array<std::uint8_t, 32>;

// None when the bytes are not a point of the curve.
KeyHandle publicKeyFromPoint(Bytes point);

// A private key with its public point; none for a scalar outside 1 to n-1.
KeyHandle privateKeyFromScalar(const Scalar& scalar);
KeyHandle generatePrivateKey();

// None for a key of another curve or kind.
std::optional<Point> publicPointOf(EVP_PKEY* key);

struct HpkeSender {
    Point encapsulated{};  // sent to the recipient
    MessageKeys keys;
};

// The side of the sender. `recipient` is a public key; `ephemeral` is a private key that is used for this agreement
// only.
std::optional<HpkeSender> hpkeSend(Aead aead, EVP_PKEY* recipient, EVP_PKEY* ephemeral, Bytes info);

// The side of the recipient, with the private key. None also when `encapsulated` is not a point of the curve.
std::optional<MessageKeys> hpkeReceive(Aead aead, EVP_PKEY* recipient, Bytes encapsulated, Bytes info);

}  // namespace tarnwick::qvx
