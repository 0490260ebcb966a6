// Hybrid public-key encryption (RFC 9180), base mode, DHKEM(P-256, HKDF-SHA256) with HKDF-SHA256: one key agreement,
// then any number of messages, each sealed with its sequence number. Built from primitives of OpenSSL.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/handle.h"
#include "qvx/bytes.h"

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

enum class Aead : std::uint16_t { aes128Gcm = 1, aes256Gcm = 2 };

// The keys that both sides derive from the agreement. Wiped by the destructor.
struct HpkeKeys {
    HpkeKeys() = default;
    HpkeKeys(const HpkeKeys&) = default;
    HpkeKeys& operator=(const HpkeKeys&) = default;
    ~HpkeKeys();

    Aead aead = Aead::aes256Gcm;
    std::array<std::uint8_t, 32> key{};  // the first 16 bytes with AES-128
    std::array<std::uint8_t, 12> baseNonce{};
};

struct HpkeSender {
    Point encapsulated{};  // sent to the recipient
    HpkeKeys keys;
};

// The side of the sender. `recipient` is a public key; `ephemeral` is a private key that is used for this agreement
// only.
std::optional<HpkeSender> hpkeSend(Aead aead, EVP_PKEY* recipient, EVP_PKEY* ephemeral, Bytes info);

// The side of the recipient, with the private key. None also when `encapsulated` is not a point of the curve.
std::optional<HpkeKeys> hpkeReceive(Aead aead, EVP_PKEY* recipient, Bytes encapsulated, Bytes info);

// Seals or opens messages in any order of their sequence numbers. For one thread at a time; other threads may use
// ciphers with copies of the same keys.
class HpkeCipher {
public:
    enum class Direction { seal, open };

    // Throws std::bad_alloc when OpenSSL cannot make the cipher.
    HpkeCipher(const HpkeKeys& keys, Direction direction);

    // Encrypts `message` in place and writes its tag to `tag`. False when the library fails.
    bool seal(std::uint64_t sequence, Bytes additional, MutableBytes message, std::span<std::uint8_t, tagSize> tag);

    // Decrypts `message` in place. False when anything was changed; the bytes in `message` are then meaningless.
    bool open(std::uint64_t sequence, Bytes additional, MutableBytes message,
              std::span<const std::uint8_t, tagSize> tag);

private:
    bool start(std::uint64_t sequence, Bytes additional);
    bool run(MutableBytes message);

    std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>> cipher_;
    std::array<std::uint8_t, 12> baseNonce_;
    Direction direction_;
};

}  // namespace tarnwick::qvx
