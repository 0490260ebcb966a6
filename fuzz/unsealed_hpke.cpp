// Cryptography without secrets, linked in place of the real one: every message opens to itself, so that a fuzzer
// reaches the code that reads unsealed bytes.
#include <algorithm>

#include "qvx/crypto/content_key.h"

namespace tarnwick::qvx {

bool startCipherLibrary() { return true; }
KeyHandle publicKeyFromPoint(Bytes) { return nullptr; }
KeyHandle generatePrivateKey() { return nullptr; }
std::optional<Point> publicPointOf(EVP_PKEY*) { return Point{}; }
SecretKey::~SecretKey() = default;
std::optional<SealedContentKey> sealContentKey(const SecretKey&, EVP_PKEY*, EVP_PKEY*, Bytes) {
    return SealedContentKey{};
}
std::optional<SecretKey> openContentKey(const SealedContentKey&, EVP_PKEY*, Bytes) { return SecretKey{}; }
std::optional<SecretKey> randomContentKey() { return SecretKey{}; }
std::optional<Salt> randomSalt() { return Salt{}; }
std::optional<ArchiveKeys> deriveArchiveKeys(const SecretKey&, const Salt&) { return ArchiveKeys{}; }
std::optional<Digest> headerTag(const SecretKey&, Bytes) { return Digest{}; }
bool isHeaderTag(const Digest&, const SecretKey&, Bytes) { return true; }

MessageCipher::MessageCipher(const MessageKeys& keys, Direction direction)
    : baseNonce_(keys.baseNonce), direction_(direction) {}

bool MessageCipher::seal(std::uint64_t, Bytes, MutableBytes, std::span<std::uint8_t, tagSize> tag) {
    std::fill(tag.begin(), tag.end(), std::uint8_t{0});
    return direction_ == Direction::seal;
}

bool MessageCipher::open(std::uint64_t, Bytes, MutableBytes, std::span<const std::uint8_t, tagSize>) {
    return direction_ == Direction::open && baseNonce_ == std::array<std::uint8_t, 12>{};
}

}  // namespace tarnwick::qvx
