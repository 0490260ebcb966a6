#include "qvx/crypto/private_key.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>
#include <optional>

namespace tarnwick::qvx {

namespace {

using Algorithm = std::unique_ptr<X509_ALGOR, FreeWith<X509_ALGOR_free>>;
using Bio = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using EncryptedKey = std::unique_ptr<X509_SIG, FreeWith<X509_SIG_free>>;
using KeyInfo = std::unique_ptr<PKCS8_PRIV_KEY_INFO, FreeWith<PKCS8_PRIV_KEY_INFO_free>>;

Error notAKey() { return {"not a private key in PEM form"}; }

struct PassphraseRequest {
    const PassphraseSource& source;
    std::optional<Status> answer;  // none before the library has asked
};

Error encrypted(const std::string& reason) { return {"the key is encrypted: " + reason}; }

// The library asks again after a wrong answer for some forms of keys, and the source must be called only once.
int providePassphrase(char* buffer, int size, int /*forWriting*/, void* data) {
    auto& request = *static_cast<PassphraseRequest*>(data);
    if (request.answer) return -1;
    Passphrase passphrase;
    request.answer = request.source ? request.source(passphrase) : Status(Error{"no passphrase was given"});
    if (!*request.answer || passphrase.size() > static_cast<std::size_t>(size)) return -1;
    std::copy_n(passphrase.data(), passphrase.size(), buffer);  // the library wipes its buffer
    return static_cast<int>(passphrase.size());
}

// A file may contain a public part that does not match its private part.
bool partsBelongTogether(EVP_PKEY* key) {
    using CheckContext = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
    const CheckContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    return context && EVP_PKEY_pairwise_check(context.get()) == 1;
}

Error unreadable(const PassphraseRequest& request) {
    if (request.answer && *request.answer) return encrypted("wrong passphrase");
    if (request.answer) return encrypted(request.answer->error().text);
    return notAKey();
}

}  // namespace

Result<KeyHandle> parsePrivateKey(std::string_view pem, const PassphraseSource& passphrase) {
    // BIO_new_mem_buf has an int for the length.
    if (pem.size() > INT_MAX) return notAKey();
    // The BIO reads from `pem` and makes no copy of the key that would have to be wiped.
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    PassphraseRequest request{passphrase, std::nullopt};
    KeyHandle key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, providePassphrase, &request) : nullptr);
    // The queue belongs to the thread; an error left in it would be found by the next call that fails.
    ERR_clear_error();
    if (!key) return unreadable(request);
    if (!publicPointOf(key.get())) return Error{"not a P-256 key"};
    if (!partsBelongTogether(key.get())) return notAKey();
    return key;
}

namespace {

// The text that `write` puts into secure memory, which OpenSSL wipes when the BIO is freed.
template <typename Write>
Result<std::string> pemText(const Write& write) {
    const Bio bio(BIO_new(BIO_s_secmem()));
    char* bytes = nullptr;
    if (bio && write(bio.get()) == 1) {
        const long length = BIO_get_mem_data(bio.get(), &bytes);
        if (length > 0) return std::string(bytes, static_cast<std::size_t>(length));
    }
    return Error{"the key cannot be written in PEM form"};
}

// As hard to guess as OWASP recommends for scrypt. More memory, and OpenSSL would refuse to decrypt the key.
Algorithm passphraseAlgorithm() {
    constexpr std::uint64_t cost = 16384;
    constexpr std::uint64_t blockFactor = 8;
    constexpr std::uint64_t rounds = 5;
    return Algorithm(PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), nullptr, 0, nullptr, cost, blockFactor, rounds));
}

EncryptedKey encryptKey(EVP_PKEY* key, const Passphrase& passphrase) {
    const KeyInfo info(EVP_PKEY2PKCS8(key));
    Algorithm algorithm = passphraseAlgorithm();
    if (!info || !algorithm) return nullptr;
    const int length = static_cast<int>(passphrase.size());
    EncryptedKey encrypted(PKCS8_set0_pbe(passphrase.data(), length, info.get(), algorithm.get()));
    if (encrypted) static_cast<void>(algorithm.release());  // the encrypted key owns it
    return encrypted;
}

}  // namespace

Result<std::string> privateKeyPem(EVP_PKEY* key) {
    return pemText(
        [&](BIO* bio) { return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

Result<std::string> encryptedKeyPem(EVP_PKEY* key, const Passphrase& passphrase) {
    const auto encrypted = encryptKey(key, passphrase);
    ERR_clear_error();
    return pemText([&](BIO* bio) { return encrypted ? PEM_write_bio_PKCS8(bio, encrypted.get()) : 0; });
}

}  // namespace tarnwick::qvx
