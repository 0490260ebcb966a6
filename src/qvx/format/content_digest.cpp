#include "qvx/format/content_digest.h"

#include <openssl/evp.h>

#include <new>

namespace tarnwick::qvx {

namespace {

void expect(int result) {
    if (result != 1) throw std::bad_alloc();
}

}  // namespace

void ContentDigest::Free::operator()(evp_md_ctx_st* context) const noexcept { EVP_MD_CTX_free(context); }

ContentDigest::ContentDigest() : context_(EVP_MD_CTX_new()) {
    expect(context_ ? EVP_DigestInit_ex2(context_.get(), EVP_sha256(), nullptr) : 0);
}

void ContentDigest::restart() { expect(EVP_DigestInit_ex2(context_.get(), nullptr, nullptr)); }

void ContentDigest::add(Bytes bytes) { expect(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size())); }

void ContentDigest::addZeros(std::uint64_t count) {
    static constexpr std::array<std::uint8_t, 65536> zeros{};
    for (; count > zeros.size(); count -= zeros.size()) add(zeros);
    add(Bytes(zeros).first(static_cast<std::size_t>(count)));
}

Digest ContentDigest::finish() {
    Digest digest{};
    expect(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr));
    return digest;
}

}  // namespace tarnwick::qvx
