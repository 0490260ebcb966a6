#include "qvx/crypto/content_key.h"

#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <string_view>

#include "qvx/crypto/hkdf.h"

namespace tarnwick::qvx {

namespace {

Bytes ascii(std::string_view text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

}  // namespace

std::optional<SecretKey> randomContentKey() {
    SecretKey key;
    if (RAND_priv_bytes(key.bytes.data(), static_cast<int>(key.bytes.size())) != 1) return std::nullopt;
    return key;
}

std::optional<Salt> randomSalt() {
    Salt salt;
    if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) return std::nullopt;
    return salt;
}

std::optional<SealedContentKey> sealContentKey(const SecretKey& contentKey, EVP_PKEY* recipient, EVP_PKEY* ephemeral,
                                               Bytes info) {
    const auto sender = hpkeSend(Aead::aes256Gcm, recipient, ephemeral, info);
    if (!sender) return std::nullopt;
    SecretKey message = contentKey;
    SealedContentKey sealed{sender->encapsulated, {}};
    const auto tag = MutableBytes(sealed.sealed).last<tagSize>();
    if (!MessageCipher(sender->keys, MessageCipher::Direction::seal).seal(0, {}, message.bytes, tag))
        return std::nullopt;
    std::ranges::copy(message.bytes, sealed.sealed.begin());
    return sealed;
}

std::optional<SecretKey> openContentKey(const SealedContentKey& sealed, EVP_PKEY* recipient, Bytes info) {
    const auto keys = hpkeReceive(Aead::aes256Gcm, recipient, sealed.encapsulated, info);
    if (!keys) return std::nullopt;
    SecretKey key;
    std::copy_n(sealed.sealed.begin(), key.bytes.size(), key.bytes.begin());
    const auto tag = Bytes(sealed.sealed).last<tagSize>();
    if (!MessageCipher(*keys, MessageCipher::Direction::open).open(0, {}, key.bytes, tag)) return std::nullopt;
    return key;
}

std::optional<ArchiveKeys> deriveArchiveKeys(const SecretKey& contentKey, const Salt& salt) {
    SecretKey extracted;
    ArchiveKeys keys;
    const bool done = hkdfExtract(salt, contentKey.bytes, extracted.bytes) &&
                      hkdfExpand(extracted.bytes, ascii("qvx block key"), keys.block.key.bytes) &&
                      hkdfExpand(extracted.bytes, ascii("qvx block nonce"), keys.block.baseNonce) &&
                      hkdfExpand(extracted.bytes, ascii("qvx header key"), keys.header.bytes);
    if (!done) return std::nullopt;
    return keys;
}

std::optional<Digest> headerTag(const SecretKey& headerKey, Bytes header) {
    Digest tag;
    if (!HMAC(EVP_sha256(), headerKey.bytes.data(), static_cast<int>(headerKey.bytes.size()), header.data(),
              header.size(), tag.data(), nullptr))
        return std::nullopt;
    return tag;
}

bool isHeaderTag(const Digest& tag, const SecretKey& headerKey, Bytes header) {
    const auto expected = headerTag(headerKey, header);
    return expected && CRYPTO_memcmp(expected->data(), tag.data(), tag.size()) == 0;
}

}  // namespace tarnwick::qvx
