#include "qvx/crypto/hkdf.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <memory>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

using Kdf = std::unique_ptr<EVP_KDF, FreeWith<EVP_KDF_free>>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, FreeWith<EVP_KDF_CTX_free>>;

OSSL_PARAM octets(const char* name, Bytes bytes) {
    static std::uint8_t nothing = 0;  // OpenSSL refuses an empty string whose pointer is null
    return OSSL_PARAM_construct_octet_string(name, bytes.empty() ? &nothing : const_cast<std::uint8_t*>(bytes.data()),
                                             bytes.size());
}

bool derive(int mode, Bytes salt, Bytes key, Bytes info, MutableBytes out) {
    // Fetched once: a fetch searches the providers.
    static const Kdf kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    const KdfContext context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    if (!context) return false;
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0), octets(OSSL_KDF_PARAM_KEY, key),
        mode == EVP_KDF_HKDF_MODE_EXTRACT_ONLY ? octets(OSSL_KDF_PARAM_SALT, salt) : octets(OSSL_KDF_PARAM_INFO, info),
        OSSL_PARAM_construct_end()};
    return EVP_KDF_derive(context.get(), out.data(), out.size(), params) == 1;
}

}  // namespace

bool hkdfExtract(Bytes salt, Bytes material, MutableBytes out) {
    return derive(EVP_KDF_HKDF_MODE_EXTRACT_ONLY, salt, material, {}, out);
}

bool hkdfExpand(Bytes key, Bytes info, MutableBytes out) {
    return derive(EVP_KDF_HKDF_MODE_EXPAND_ONLY, {}, key, info, out);
}

}  // namespace tarnwick::qvx
