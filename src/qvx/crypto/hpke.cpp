#include "qvx/crypto/hpke.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <string_view>
#include <vector>

#include "qvx/crypto/hkdf.h"

namespace tarnwick::qvx {

namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using BigNumber = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;
using CurveGroup = std::unique_ptr<EC_GROUP, FreeWith<EC_GROUP_free>>;
using CurvePoint = std::unique_ptr<EC_POINT, FreeWith<EC_POINT_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, FreeWith<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, FreeWith<OSSL_PARAM_free>>;

// The numbers of DHKEM(P-256, HKDF-SHA256) and HKDF-SHA256 in RFC 9180, section 7.
constexpr std::uint16_t kemId = 0x0010;
constexpr std::uint16_t kdfId = 0x0001;

// A byte string that may be secret.
class Secret {
public:
    Secret() = default;
    explicit Secret(std::size_t size) : bytes_(size) {}
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

    // Reserves all memory at once: growing would leave an unwiped copy in the memory that is freed.
    void reserve(std::size_t size) { bytes_.reserve(size); }
    void append(Bytes bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
    void append(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
    void append16(std::size_t number) {
        bytes_.push_back(static_cast<std::uint8_t>(number >> 8));
        bytes_.push_back(static_cast<std::uint8_t>(number));
    }
    std::uint8_t* data() { return bytes_.data(); }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    [[nodiscard]] Bytes bytes() const { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

// LabeledExtract and LabeledExpand of RFC 9180, section 4, under one suite identifier.
class LabeledKdf {
public:
    explicit LabeledKdf(std::vector<std::uint8_t> suite) : suite_(std::move(suite)) {}

    bool extract(Bytes salt, std::string_view label, Bytes material, MutableBytes out) const {
        Secret labeled;
        labeled.reserve(prefix.size() + suite_.size() + label.size() + material.size());
        labeled.append(prefix);
        labeled.append(suite_);
        labeled.append(label);
        labeled.append(material);
        return hkdfExtract(salt, labeled.bytes(), out);
    }

    // The buffer contains nothing secret here, so it may grow: the key is passed on its own.
    bool expand(Bytes key, std::string_view label, Bytes info, MutableBytes out) const {
        Secret labeled;
        labeled.append16(out.size());
        labeled.append(prefix);
        labeled.append(suite_);
        labeled.append(label);
        labeled.append(info);
        return hkdfExpand(key, labeled.bytes(), out);
    }

private:
    static constexpr std::string_view prefix = "HPKE-v1";
    std::vector<std::uint8_t> suite_;
};

void append16(std::vector<std::uint8_t>& bytes, std::uint16_t number) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

LabeledKdf kemKdf() {
    std::vector<std::uint8_t> suite{'K', 'E', 'M'};
    append16(suite, kemId);
    return LabeledKdf(std::move(suite));
}

LabeledKdf scheduleKdf(Aead aead) {
    std::vector<std::uint8_t> suite{'H', 'P', 'K', 'E'};
    append16(suite, kemId);
    append16(suite, kdfId);
    append16(suite, static_cast<std::uint16_t>(aead));
    return LabeledKdf(std::move(suite));
}

std::size_t keySize(Aead aead) { return aead == Aead::aes128Gcm ? 16 : 32; }

// The shared secret is an x-coordinate of P-256, 32 bytes. Another length would mean a key of another curve.
bool diffieHellman(EVP_PKEY* own, EVP_PKEY* peer, MutableBytes shared) {
    const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, own, nullptr));
    std::size_t size = shared.size();
    return context && EVP_PKEY_derive_init(context.get()) == 1 && EVP_PKEY_derive_set_peer(context.get(), peer) == 1 &&
           EVP_PKEY_derive(context.get(), shared.data(), &size) == 1 && size == shared.size();
}

// Encap and Decap end alike: the shared secret from the agreement and both public points.
bool sharedSecret(EVP_PKEY* own, EVP_PKEY* peer, Bytes encapsulated, Bytes recipient, Secret& shared) {
    Secret agreed(32);
    Secret extracted(32);
    std::vector<std::uint8_t> context(encapsulated.begin(), encapsulated.end());
    context.insert(context.end(), recipient.begin(), recipient.end());
    const LabeledKdf kdf = kemKdf();
    return diffieHellman(own, peer, {agreed.data(), agreed.size()}) &&
           kdf.extract({}, "eae_prk", agreed.bytes(), {extracted.data(), extracted.size()}) &&
           kdf.expand(extracted.bytes(), "shared_secret", context, {shared.data(), shared.size()});
}

// KeySchedule of RFC 9180, section 5.1, in base mode: no pre-shared key.
std::optional<MessageKeys> keySchedule(Aead aead, const Secret& shared, Bytes info) {
    const LabeledKdf kdf = scheduleKdf(aead);
    std::array<std::uint8_t, 1 + 32 + 32> context{};  // the mode (0 = base) and two hashes
    const MutableBytes pskIdHash(context.data() + 1, 32);
    const MutableBytes infoHash(context.data() + 33, 32);
    Secret secret(32);
    MessageKeys keys;
    keys.aead = aead;
    const bool done = kdf.extract({}, "psk_id_hash", {}, pskIdHash) && kdf.extract({}, "info_hash", info, infoHash) &&
                      kdf.extract(shared.bytes(), "secret", {}, {secret.data(), secret.size()}) &&
                      kdf.expand(secret.bytes(), "key", context, {keys.key.bytes.data(), keySize(aead)}) &&
                      kdf.expand(secret.bytes(), "base_nonce", context, keys.baseNonce);
    if (!done) return std::nullopt;
    return keys;
}

KeyHandle keyFromParams(int selection, OSSL_PARAM* params) {
    const Context context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (!context || !params || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, selection, params) != 1)
        return nullptr;
    return KeyHandle(key);
}

KeyHandle keyFromParts(Bytes point, const BIGNUM* scalar) {
    const ParamBuilder builder(OSSL_PARAM_BLD_new());
    if (!builder ||
        OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, SN_X9_62_prime256v1, 0) != 1 ||
        OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1 ||
        (scalar && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar) != 1))
        return nullptr;
    const Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    return keyFromParams(scalar ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, params.get());
}

}  // namespace

bool startCipherLibrary() { return OSSL_LIB_CTX_get0_global_default() != nullptr; }

KeyHandle publicKeyFromPoint(Bytes point) {
    // The format has points in uncompressed form only.
    if (point.size() != Point{}.size() || point[0] != 0x04) return nullptr;
    KeyHandle key = keyFromParts(point, nullptr);
    const Context context(key ? EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr) : nullptr);
    // A point that is not on the curve could reveal bits of the private key (RFC 9180, section 7.1.4).
    if (!context || EVP_PKEY_public_check(context.get()) != 1) return nullptr;
    return key;
}

// OpenSSL imports a private key without its public point as it is, and HPKE needs the point. So it is computed here.
KeyHandle privateKeyFromScalar(const Scalar& scalar) {
    const CurveGroup group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    const BigNumber number(BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), nullptr));
    const CurvePoint product(group ? EC_POINT_new(group.get()) : nullptr);
    if (!product || !number || BN_is_zero(number.get()) ||
        BN_cmp(number.get(), EC_GROUP_get0_order(group.get())) >= 0 ||
        EC_POINT_mul(group.get(), product.get(), number.get(), nullptr, nullptr, nullptr) != 1)
        return nullptr;
    Point point{};
    if (EC_POINT_point2oct(group.get(), product.get(), POINT_CONVERSION_UNCOMPRESSED, point.data(), point.size(),
                           nullptr) != point.size())
        return nullptr;
    return keyFromParts(point, number.get());
}

KeyHandle generatePrivateKey() { return KeyHandle(EVP_EC_gen("P-256")); }

std::optional<Point> publicPointOf(EVP_PKEY* key) {
    std::array<char, 32> group{};
    std::size_t length = 0;
    if (!key || EVP_PKEY_get_base_id(key) != EVP_PKEY_EC ||
        EVP_PKEY_get_group_name(key, group.data(), group.size(), &length) != 1 ||
        std::string_view(group.data(), length) != SN_X9_62_prime256v1)
        return std::nullopt;
    // The key may store its point in compressed form; the coordinates are the same.
    BIGNUM* x = nullptr;
    BIGNUM* y = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_EC_PUB_X, &x);
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_EC_PUB_Y, &y);
    const BigNumber ownedX(x);
    const BigNumber ownedY(y);
    Point point{0x04};
    if (!x || !y || BN_bn2binpad(x, point.data() + 1, 32) != 32 || BN_bn2binpad(y, point.data() + 33, 32) != 32)
        return std::nullopt;
    return point;
}

// Each archive must have another ephemeral key: sequence numbers, and so nonces, repeat in every archive.
std::optional<HpkeSender> hpkeSend(Aead aead, EVP_PKEY* recipient, EVP_PKEY* ephemeral, Bytes info) {
    const auto recipientPoint = publicPointOf(recipient);
    const auto encapsulated = publicPointOf(ephemeral);
    Secret shared(32);
    if (!recipientPoint || !encapsulated || !sharedSecret(ephemeral, recipient, *encapsulated, *recipientPoint, shared))
        return std::nullopt;
    const auto keys = keySchedule(aead, shared, info);
    if (!keys) return std::nullopt;
    return HpkeSender{*encapsulated, *keys};
}

std::optional<MessageKeys> hpkeReceive(Aead aead, EVP_PKEY* recipient, Bytes encapsulated, Bytes info) {
    const auto recipientPoint = publicPointOf(recipient);
    const KeyHandle sender = publicKeyFromPoint(encapsulated);
    Secret shared(32);
    if (!recipientPoint || !sender || !sharedSecret(recipient, sender.get(), encapsulated, *recipientPoint, shared))
        return std::nullopt;
    return keySchedule(aead, shared, info);
}

}  // namespace tarnwick::qvx
