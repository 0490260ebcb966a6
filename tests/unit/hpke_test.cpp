#include "qvx/crypto/hpke.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "unit/hex.h"

using namespace tarnwick::qvx;
using tarnwick::test::fromHex;
using Direction = MessageCipher::Direction;

namespace {

KeyHandle privateKey(const std::vector<std::uint8_t>& bytes) {
    Scalar scalar{};
    std::copy(bytes.begin(), bytes.end(), scalar.begin());
    return privateKeyFromScalar(scalar);
}

// The vectors of RFC 9180; their fields come in the order of use: a key agreement up to "enc", messages up to "ct".
TEST(Hpke, GivesThePublishedCiphertextsAndOpensThem) {
    std::ifstream json(TEST_DATA "/hpke.json");
    std::map<std::string, std::string> fields;
    std::optional<HpkeSender> sender;
    std::optional<MessageKeys> receiver;
    std::size_t messages = 0;
    const auto bytes = [&](const char* name) { return fromHex(fields.at(name)); };
    for (std::string name, value; json >> name;) {
        if (!name.ends_with(':')) continue;
        json >> value;
        for (auto* text : {&name, &value}) std::erase_if(*text, [](char c) { return !std::isalnum(c) && c != '_'; });
        fields[name] = value;
        if (name == "enc") {
            const auto aead = static_cast<Aead>(std::stoi(fields.at("aead_id")));
            const auto recipient = publicKeyFromPoint(bytes("pkRm")), own = privateKey(bytes("skRm"));
            sender = hpkeSend(aead, recipient.get(), privateKey(bytes("skEm")).get(), bytes("info"));
            receiver = hpkeReceive(aead, own.get(), bytes("enc"), bytes("info"));
            ASSERT_TRUE(sender && receiver && std::ranges::equal(bytes("enc"), sender->encapsulated));
        } else if (name == "ct") {
            const auto sequence = std::stoull(fields.at("seq"));
            auto message = bytes("pt");
            message.resize(message.size() + tagSize);
            const auto plain = MutableBytes(message).first(message.size() - tagSize);
            const auto tag = MutableBytes(message).last<tagSize>();
            ASSERT_TRUE(MessageCipher(sender->keys, Direction::seal).seal(sequence, bytes("aad"), plain, tag));
            EXPECT_EQ(message, bytes("ct")) << "message " << sequence;
            ASSERT_TRUE(MessageCipher(*receiver, Direction::open).open(sequence, bytes("aad"), plain, tag));
            EXPECT_TRUE(std::ranges::equal(plain, bytes("pt")));
            ++messages;
        }
    }
    EXPECT_EQ(messages, 12U);
}

TEST(Hpke, RefusesPointsBesideTheCurve) {
    auto point = *publicPointOf(generatePrivateKey().get());
    EXPECT_FALSE(publicKeyFromPoint(Bytes(point).first(33)));
    point[64] ^= 1;
    for (const auto& other : {point, Point{}, Point{0x04}}) EXPECT_FALSE(publicKeyFromPoint(other));
}

}  // namespace
