// Hybrid public-key encryption, RFC 9180, base mode, DHKEM(P-256, HKDF-SHA256) with HKDF-SHA256: one key agreement,
// then any number of messages, each sealed under its sequence number. Built from OpenSSL's primitives.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/handle.h"
#include "qvx/bytes.h"

namespace tarnwick::qvx {

// Sets up the cipher library, unless that is done. When it fails, the library must not be used: its functions take for
// granted what is then missing, and crash.
bool startCipherLibrary();

using KeyHandle = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using Scalar = std::array<std::uint8_t, 32>;

// None unless the bytes are a point of the curve.
KeyHandle publicKeyFromPoint(Bytes point);

// A private key with its public point; none for a scalar outside 1 to n-1.
KeyHandle privateKeyFromScalar(const Scalar& scalar);
KeyHandle generatePrivateKey();

// None for a key of another curve or kind.
std::optional<Point> publicPointOf(EVP_PKEY* key);

enum class Aead : std::uint16_t { aes128Gcm = 1, aes256Gcm = 2 };

// What both sides share after the agreement. Wiped when it goes.
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
    Point encapsulated{};  // goes to the recipient
    HpkeKeys keys;
};

// Agreement with `recipient`, a public key; `ephemeral` is the sender's private key, to be used for this one only.
std::optional<HpkeSender> hpkeSend(Aead aead, EVP_PKEY* recipient, EVP_PKEY* ephemeral, Bytes info);

// The recipient's side, with his private key. None also when `encapsulated` is not a point of the curve.
std::optional<HpkeKeys> hpkeReceive(Aead aead, EVP_PKEY* recipient, Bytes encapsulated, Bytes info);

// Seals or opens messages in any order of their sequence numbers. One thread at a time; copies of the same keys may be
// used by as many ciphers as there are threads.
class HpkeCipher {
public:
    enum class Direction { seal, open };

    // Throws std::bad_alloc when OpenSSL cannot make the cipher.
    HpkeCipher(const HpkeKeys& keys, Direction direction);

    // Encrypts `message` in place; its tag is put into `tag`. False on a failure of the library.
    bool seal(std::uint64_t sequence, Bytes additional, MutableBytes message, std::span<std::uint8_t, tagSize> tag);

    // Decrypts `message` in place. False when anything was changed; the bytes are then worthless.
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
