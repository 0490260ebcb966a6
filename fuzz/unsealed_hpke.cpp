// HPKE without secrets, linked in place of the real one: every message opens to itself, so that a fuzzer gets at what
// lies behind the seal.
#include <algorithm>

#include "qvx/crypto/hpke.h"

namespace tarnwick::qvx {

KeyHandle publicKeyFromPoint(Bytes) { return nullptr; }
KeyHandle privateKeyFromScalar(const Scalar&) { return nullptr; }
KeyHandle generatePrivateKey() { return nullptr; }
std::optional<Point> publicPointOf(EVP_PKEY*) { return Point{}; }
HpkeKeys::~HpkeKeys() = default;
std::optional<HpkeSender> hpkeSend(Aead, EVP_PKEY*, EVP_PKEY*, Bytes) { return HpkeSender{}; }
std::optional<HpkeKeys> hpkeReceive(Aead, EVP_PKEY*, Bytes, Bytes) { return HpkeKeys{}; }

HpkeCipher::HpkeCipher(const HpkeKeys& keys, Direction direction) : baseNonce_(keys.baseNonce), direction_(direction) {}

bool HpkeCipher::seal(std::uint64_t, Bytes, MutableBytes, std::span<std::uint8_t, tagSize> tag) {
    std::fill(tag.begin(), tag.end(), std::uint8_t{0});
    return direction_ == Direction::seal;
}

bool HpkeCipher::open(std::uint64_t, Bytes, MutableBytes, std::span<const std::uint8_t, tagSize>) {
    return direction_ == Direction::open && baseNonce_ == std::array<std::uint8_t, 12>{};
}

}  // namespace tarnwick::qvx
