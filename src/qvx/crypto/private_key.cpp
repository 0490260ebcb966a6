#include "qvx/crypto/private_key.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <climits>
#include <optional>

namespace tarnwick::qvx {

namespace {

using Bio = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;

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

Result<std::string> privateKeyPem(EVP_PKEY* key) {
    // Secure memory, which OpenSSL wipes when the BIO is freed.
    const Bio bio(BIO_new(BIO_s_secmem()));
    char* bytes = nullptr;
    if (bio && PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1) {
        const long length = BIO_get_mem_data(bio.get(), &bytes);
        if (length > 0) return std::string(bytes, static_cast<std::size_t>(length));
    }
    return Error{"the key cannot be written in PEM form"};
}

}  // namespace tarnwick::qvx
