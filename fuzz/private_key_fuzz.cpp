// The PEM file of a private key. A key that is read is the same after it was written and read again.
#include "qvx/crypto/private_key.h"
#include "require.h"

using namespace tarnwick::qvx;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto key = parsePrivateKey(textOf(data, size));
    require(key ? *key != nullptr : !key.error().text.empty());
    if (!key) return 0;
    const auto point = publicPointOf(key->get());
    require(point && publicKeyFromPoint(*point) != nullptr);
    const auto again = parsePrivateKey(*privateKeyPem(key->get()));
    require(publicPointOf(again->get()) == point);
    return 0;
}
