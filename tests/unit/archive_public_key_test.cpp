#include "config/archive_public_key.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <stdexcept>

using namespace tarnwick;

namespace {

const std::string type = "ecdsa-sha2-nistp256", point = "\x04" + std::string(64, 'p');

std::string blob(const std::string& typeInside, const std::string& curve, const std::string& pointInside = point) {
    std::string fields;
    for (const auto& each : {typeInside, curve, pointInside})
        fields += std::string(3, '\0') + static_cast<char>(each.size()) + each;
    return fields;
}

std::string keyLine(const std::string& bytes) {
    unsigned char text[400];
    const auto* source = reinterpret_cast<const unsigned char*>(bytes.data());
    const int length = EVP_EncodeBlock(text, source, static_cast<int>(bytes.size()));
    return type + " " + std::string(text, text + length);
}

// The point, or an empty text when the key line is refused.
std::string pointOf(const std::string& line) {
    std::string found(publicPointLength, '\0');
    std::uint64_t length = 0;
    const bool good = parseArchivePublicKey(line, reinterpret_cast<std::byte*>(found.data()), length);
    return good && length == publicPointLength ? found : "";
}

TEST(ArchivePublicKey, AcceptsAnyTextAfterTheKeyAndRejectsEveryOtherForm) {
    const auto good = blob(type, "nistp256"), line = keyLine(good);
    for (const auto* tail : {"", " comment", "\r\nmore", "-", " ===="}) EXPECT_EQ(pointOf(line + tail), point) << tail;
    EXPECT_EQ(pointOf(keyLine(good + std::string(152, 'x'))), point) << "256 bytes just fit";
    EXPECT_EQ(pointOf(keyLine(good.substr(0, 94))), point.substr(0, 55) + std::string(10, '\0')) << "rest is zeros";
    for (const auto& bad : {type.substr(0, 18), " " + line, type + "\t" + line.substr(20), "ssh-rsa " + line,
                            type + " ", line.substr(0, 159), keyLine(blob(type, "nistp384")),
                            keyLine(blob("ssh-rsa", "nistp256")), keyLine(blob(type, "nistp256", point.substr(0, 33))),
                            keyLine(good + std::string(153, 'x')), keyLine("\xff\xff\xff\xfc" + type)})
        EXPECT_EQ(pointOf(bad), "") << bad;
    EXPECT_THROW(pointOf(type), std::out_of_range);
}

// Nothing when the text is refused.
std::string decoded(const std::string& source, bool skipWhitespace = false) {
    std::string bytes(9, '\0');
    std::uint64_t length = 0;
    decodeBase64(source.size(), source.data(), skipWhitespace, 9, length, reinterpret_cast<std::byte*>(bytes.data()));
    return bytes.substr(0, length);
}

TEST(Base64, EndsAndFailsAsItsRulesSay) {
    for (const auto* bad : {"TWFuTQ", "", "-", "T=Fu", "TW Fu", "TWFuTWFuTWFuTQ=="}) EXPECT_EQ(decoded(bad), "") << bad;
    EXPECT_EQ(decoded("TWFu TWFu") + decoded("TW Fu\nTWFu", true), "ManManMan") << "white space";
    EXPECT_EQ(decoded({"TWFu\0TWFu", 9}, true), "Man") << "a zero byte ends the text";
    EXPECT_EQ(decoded("++//") + decoded("T===") + decoded("===="), std::string("\xfb\xef\xffL\0\0\0\0\0", 9));
}

}  // namespace
