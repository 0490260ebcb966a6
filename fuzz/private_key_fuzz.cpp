// The PEM file of a private key. A key that is read must survive being written.
#include "qvx/crypto/private_key.h"
#include "require.h"

using namespace tarnwick::qvx;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto none = [] { return std::optional<std::string>(); };
    const ParsedKey parsed = parsePrivateKey(textOf(data, size), none);
    require((parsed.fault == KeyFault::none) == (parsed.key != nullptr));
    if (!parsed.key) return 0;
    const auto point = publicPointOf(parsed.key.get());
    require(point && publicKeyFromPoint(*point) != nullptr);
    const ParsedKey again = parsePrivateKey(privateKeyPem(parsed.key.get()), none);
    require(again.key && publicPointOf(again.key.get()) == point);
    return 0;
}
