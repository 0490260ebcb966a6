#include "platform/archive/hpke.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "unit/hex.h"

using namespace tarnwick::qvx;
using tarnwick::test::fromHex;

namespace {

// The vectors' file is read as a row of "name": value pairs, which come in the order of use.
struct Vectors {
    std::string text;
    std::size_t at = 0;

    bool skipTo(const std::string& name, const std::string& before) {
        const auto found = text.find('"' + name + '"', at);
        if (found == std::string::npos || found > text.find('"' + before + '"', at)) return false;
        at = found + name.size() + 3;
        return true;
    }
    std::string value(const std::string& name) {
        EXPECT_TRUE(skipTo(name, "no such name")) << name;
        at = text.find_first_not_of(" \"", at);
        const auto end = text.find_first_of("\",\n", at);
        auto found = text.substr(at, end - at);
        at = end;
        return found;
    }
    std::vector<std::uint8_t> bytes(const std::string& name) { return fromHex(value(name)); }
};

Vectors load() {
    std::ifstream file(TEST_DATA "/hpke.json");
    std::stringstream text;
    text << file.rdbuf();
    return {text.str()};
}

KeyHandle privateKey(const std::vector<std::uint8_t>& bytes) {
    Scalar scalar{};
    std::copy(bytes.begin(), bytes.end(), scalar.begin());
    return privateKeyFromScalar(scalar);
}

TEST(Hpke, GivesThePublishedCiphertextsAndOpensThem) {
    auto vectors = load();
    std::size_t messages = 0;
    while (vectors.skipTo("mode", "no such name")) {
        const auto aead = static_cast<Aead>(std::stoi(vectors.value("aead_id")));
        const auto info = vectors.bytes("info");
        const auto ephemeral = privateKey(vectors.bytes("skEm"));
        const auto recipient = privateKey(vectors.bytes("skRm"));
        const auto point = vectors.bytes("pkRm");
        const auto encapsulated = vectors.bytes("enc");
        const auto sender = hpkeSend(aead, publicKeyFromPoint(point).get(), ephemeral.get(), info);
        const auto receiver = hpkeReceive(aead, recipient.get(), encapsulated, info);
        ASSERT_TRUE(sender && receiver);
        EXPECT_TRUE(std::equal(encapsulated.begin(), encapsulated.end(), sender->encapsulated.begin()));
        HpkeCipher sealer(sender->keys, HpkeCipher::Direction::seal);
        HpkeCipher opener(*receiver, HpkeCipher::Direction::open);
        while (vectors.skipTo("seq", "mode")) {
            const auto sequence = std::stoull(vectors.text.substr(vectors.at));
            const auto plain = vectors.bytes("pt");
            const auto additional = vectors.bytes("aad");
            auto sealed = vectors.bytes("ct");
            auto ours = plain;
            std::array<std::uint8_t, tagSize> tag{};
            ASSERT_TRUE(sealer.seal(sequence, additional, ours, tag));
            ours.insert(ours.end(), tag.begin(), tag.end());
            EXPECT_EQ(ours, sealed) << "message " << sequence;
            const MutableBytes message = MutableBytes(sealed).first(plain.size());
            ASSERT_TRUE(opener.open(sequence, additional, message, tag));
            EXPECT_TRUE(std::equal(plain.begin(), plain.end(), message.begin()));
            ++messages;
        }
    }
    EXPECT_EQ(messages, 12U);
}

TEST(Hpke, RefusesAChangedMessageTagNumberOrAdditionalByte) {
    const auto recipient = generatePrivateKey();
    const auto sender = hpkeSend(Aead::aes256Gcm, recipient.get(), generatePrivateKey().get(), {});
    ASSERT_TRUE(sender);
    HpkeCipher sealer(sender->keys, HpkeCipher::Direction::seal);
    HpkeCipher opener(sender->keys, HpkeCipher::Direction::open);
    std::vector<std::uint8_t> additional{1, 2};
    std::vector<std::uint8_t> sealed(40, 7);
    std::array<std::uint8_t, tagSize> tag{};
    ASSERT_TRUE(sealer.seal(9, additional, sealed, tag));
    const auto opens = [&](std::uint64_t sequence) {
        auto message = sealed;
        return opener.open(sequence, additional, message, tag);
    };
    EXPECT_TRUE(opens(9));
    EXPECT_FALSE(opens(10));
    for (std::uint8_t* byte : {&additional[0], &sealed[39], &tag[15]}) {
        *byte ^= 1;
        EXPECT_FALSE(opens(9));
        *byte ^= 1;
    }
    EXPECT_TRUE(opens(9));
}

TEST(Hpke, TakesOnlyPointsOfTheCurveAndScalarsBelowItsOrder) {
    const auto key = generatePrivateKey();
    auto point = *publicPointOf(key.get());
    EXPECT_TRUE(publicKeyFromPoint(point));
    EXPECT_FALSE(publicKeyFromPoint(Bytes(point).first(33)));
    EXPECT_FALSE(hpkeReceive(Aead::aes256Gcm, key.get(), Bytes(point).first(33), {}));
    point[64] ^= 1;
    EXPECT_FALSE(publicKeyFromPoint(point));
    EXPECT_FALSE(publicKeyFromPoint(Point{}));
    EXPECT_FALSE(publicKeyFromPoint(Point{0x04}));

    Scalar order{};
    const auto bytes = fromHex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551");
    std::copy(bytes.begin(), bytes.end(), order.begin());
    EXPECT_FALSE(privateKeyFromScalar(Scalar{}));
    EXPECT_FALSE(privateKeyFromScalar(order));
    --order[31];
    EXPECT_TRUE(privateKeyFromScalar(order));
}

}  // namespace
