// AES-GCM for messages that are numbered: the nonce of a message is a base nonce XOR its number. HPKE (RFC 9180) and
// the blocks of an archive are sealed in this way.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <memory>

#include "base/handle.h"
#include "qvx/bytes.h"
#include "qvx/crypto/secret_key.h"

namespace tarnwick::qvx {

enum class Aead : std::uint16_t { aes128Gcm = 1, aes256Gcm = 2 };

struct MessageKeys {
    Aead aead = Aead::aes256Gcm;
    SecretKey key;  // the first 16 bytes with AES-128
    std::array<std::uint8_t, 12> baseNonce{};
};

// Seals or opens messages in any order of their sequence numbers. For one thread at a time; other threads may use
// ciphers with copies of the same keys.
class MessageCipher {
public:
    enum class Direction { seal, open };

    // Throws std::bad_alloc when OpenSSL cannot make the cipher.
    MessageCipher(const MessageKeys& keys, Direction direction);

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
