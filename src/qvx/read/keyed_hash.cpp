#include "qvx/read/keyed_hash.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <new>
#include <random>

#include "base/handle.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t wordSize = 8;

using Mac = std::unique_ptr<EVP_MAC, FreeWith<EVP_MAC_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, FreeWith<EVP_MAC_CTX_free>>;

KeyedHash::Key randomKey() {
    KeyedHash::Key key{};
    std::random_device random;
    std::ranges::generate(key, [&] { return static_cast<std::uint8_t>(random()); });
    return key;
}

void expect(int result) {
    if (result != 1) throw std::bad_alloc();
}

MacContext newContext() {
    static const Mac mac(EVP_MAC_fetch(nullptr, "SIPHASH", nullptr));
    MacContext context(mac ? EVP_MAC_CTX_new(mac.get()) : nullptr);
    std::size_t size = sizeof(KeyedHash::Wide);
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_size_t(OSSL_MAC_PARAM_SIZE, &size), OSSL_PARAM_construct_end()};
    expect(context ? EVP_MAC_CTX_set_params(context.get(), params) : 0);
    return context;
}

}  // namespace

KeyedHash::KeyedHash() : KeyedHash(randomKey()) {}

// One context for each thread: to make one takes longer than a hash.
KeyedHash::Wide KeyedHash::wide(Bytes text) const {
    thread_local const MacContext context = newContext();
    std::array<std::uint8_t, sizeof(Wide)> result{};
    std::size_t length = 0;
    // With the key each time: without it, the calculation would not begin anew.
    expect(EVP_MAC_init(context.get(), key_.data(), key_.size(), nullptr));
    expect(EVP_MAC_update(context.get(), text.data(), text.size()));
    expect(EVP_MAC_final(context.get(), result.data(), &length, result.size()));
    return {getLittleEndian<wordSize>(result.data()), getLittleEndian<wordSize>(&result[wordSize])};
}

std::uint64_t KeyedHash::operator()(std::string_view text) const {
    return wide({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).front();
}

}  // namespace tarnwick::qvx
