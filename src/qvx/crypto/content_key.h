// The content key of an archive: how it is sealed to a recipient, and what is derived from it.
#pragma once

#include <optional>

#include "qvx/crypto/hpke.h"

namespace tarnwick::qvx {

// The content key as one recipient gets it.
struct SealedContentKey {
    Point encapsulated{};
    std::array<std::uint8_t, sizeof(SecretKey) + tagSize> sealed{};
};

struct ArchiveKeys {
    MessageKeys block;
    SecretKey header;
};

// 32 random bytes. None when the system has none.
std::optional<SecretKey> randomContentKey();
std::optional<Salt> randomSalt();

// `ephemeral` is a private key that is used only once. None when the cipher library fails, or for a key of another
// curve.
std::optional<SealedContentKey> sealContentKey(const SecretKey& contentKey, EVP_PKEY* recipient, EVP_PKEY* ephemeral,
                                               Bytes info);

// None when anything was changed, or when it was sealed to another key.
std::optional<SecretKey> openContentKey(const SealedContentKey& sealed, EVP_PKEY* recipient, Bytes info);

// None when the cipher library fails.
std::optional<ArchiveKeys> deriveArchiveKeys(const SecretKey& contentKey, const Salt& salt);

// HMAC-SHA256 of the header.
std::optional<Digest> headerTag(const SecretKey& headerKey, Bytes header);

// Compares in constant time.
bool isHeaderTag(const Digest& tag, const SecretKey& headerKey, Bytes header);

}  // namespace tarnwick::qvx
