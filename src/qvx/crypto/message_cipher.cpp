#include "qvx/crypto/message_cipher.h"

#include <algorithm>
#include <new>

namespace tarnwick::qvx {

MessageCipher::MessageCipher(const MessageKeys& keys, Direction direction)
    : cipher_(EVP_CIPHER_CTX_new()), baseNonce_(keys.baseNonce), direction_(direction) {
    const EVP_CIPHER* kind = keys.aead == Aead::aes128Gcm ? EVP_aes_128_gcm() : EVP_aes_256_gcm();
    if (!cipher_ || EVP_CipherInit_ex(cipher_.get(), kind, nullptr, keys.key.bytes.data(), nullptr,
                                      direction == Direction::seal ? 1 : 0) != 1)
        // AES-GCM is part of every OpenSSL, so only memory can be missing.
        throw std::bad_alloc();
}

// The nonce of a message is the base nonce XOR its sequence number (RFC 9180, section 5.2). Null pointers and -1 keep
// cipher, key and direction, so that the key is not expanded again for each block.
bool MessageCipher::start(std::uint64_t sequence, Bytes additional) {
    auto nonce = baseNonce_;
    for (std::size_t i = 0; i < 8; ++i) nonce[nonce.size() - 1 - i] ^= static_cast<std::uint8_t>(sequence >> (8 * i));
    int length = 0;
    const auto size = static_cast<int>(additional.size());
    return EVP_CipherInit_ex(cipher_.get(), nullptr, nullptr, nullptr, nonce.data(), -1) == 1 &&
           (size == 0 || EVP_CipherUpdate(cipher_.get(), nullptr, &length, additional.data(), size) == 1);
}

// GCM is a stream cipher: it works in place, and the output has the length of the input.
bool MessageCipher::run(MutableBytes message) {
    int length = 0;
    return EVP_CipherUpdate(cipher_.get(), message.data(), &length, message.data(), static_cast<int>(message.size())) ==
               1 &&
           length == static_cast<int>(message.size());
}

bool MessageCipher::seal(std::uint64_t sequence, Bytes additional, MutableBytes message,
                         std::span<std::uint8_t, tagSize> tag) {
    std::uint8_t unused = 0;
    int length = 0;
    return direction_ == Direction::seal && start(sequence, additional) && run(message) &&
           EVP_CipherFinal_ex(cipher_.get(), &unused, &length) == 1 &&
           EVP_CIPHER_CTX_ctrl(cipher_.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tagSize), tag.data()) == 1;
}

bool MessageCipher::open(std::uint64_t sequence, Bytes additional, MutableBytes message,
                         std::span<const std::uint8_t, tagSize> tag) {
    // A copy, because OpenSSL has no const in the type of this argument.
    std::array<std::uint8_t, tagSize> expected{};
    std::copy(tag.begin(), tag.end(), expected.begin());
    std::uint8_t unused = 0;
    int length = 0;
    return direction_ == Direction::open && start(sequence, additional) && run(message) &&
           EVP_CIPHER_CTX_ctrl(cipher_.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagSize), expected.data()) == 1 &&
           // The tag is compared only here. Until then, the decrypted bytes may be forged.
           EVP_CipherFinal_ex(cipher_.get(), &unused, &length) == 1;
}

}  // namespace tarnwick::qvx
