#include "config/archive_public_key.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <vector>

using namespace tarnwick;

namespace {

const std::string type = "ecdsa-sha2-nistp256", point = "\x04" + std::string(64, 'p');

std::string field(const std::string& data) { return std::string(3, '\0') + static_cast<char>(data.size()) + data; }

std::string blob(const std::string& typeInside, const std::string& curve, const std::string& pointInside = point) {
    return field(typeInside) + field(curve) + field(pointInside);
}

std::string keyLine(const std::string& bytes) {
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    const auto* source = reinterpret_cast<const unsigned char*>(bytes.data());
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), source, static_cast<int>(bytes.size()));
    return type + " " + text.c_str();
}

// The point, or the empty text when the key line is refused.
std::string pointOf(const std::string& line) {
    std::string found(publicPointLength, '\0');
    std::uint64_t length = 0;
    const bool good = parseArchivePublicKey(line, reinterpret_cast<std::byte*>(found.data()), length);
    return good && length == publicPointLength ? found : "";
}

TEST(ArchivePublicKey, IsTakenWhateverFollowsTheBase64TextAndRefusedInAnyOtherForm) {
    const auto good = blob(type, "nistp256"), line = keyLine(good);
    for (const auto* tail : {"", " comment", "\r\nmore", "-", " ===="}) EXPECT_EQ(pointOf(line + tail), point) << tail;
    EXPECT_EQ(pointOf(keyLine(good + std::string(152, 'x'))), point) << "256 bytes just fit";
    EXPECT_EQ(pointOf(keyLine(good.substr(0, 94))), point.substr(0, 55) + std::string(10, '\0'))
        << "missing bytes of the point count as zeros";
    auto tab = line;
    tab[19] = '\t';
    for (const auto& bad :
         {std::string("ecdsa-sha2-nistp25"), " " + line, tab, "ssh-rsa " + line, line.substr(0, 159), type + " ",
          keyLine(blob(type, "nistp384")), keyLine(blob(type, "nistp256", point.substr(0, 33))),
          keyLine(blob("ecdsa-sha2-nistp384", "nistp256")), keyLine(good + std::string(153, 'x')),
          keyLine("\xff\xff\xff\xfc" + type)})
        EXPECT_EQ(pointOf(bad), "") << bad;
    EXPECT_THROW(pointOf(type), std::out_of_range);
}

TEST(Base64, EndsFailsAndSkipsAsItsRulesSay) {
    const auto decoded = [](const std::string& source, bool skip = false, std::uint64_t capacity = 9) {
        std::vector<std::byte> room(capacity);  // exactly, so that the sanitizer sees an overrun
        std::uint64_t length = 99;
        const bool good = decodeBase64(source.size(), source.data(), skip, capacity, length, room.data());
        return good == (length > 0) ? std::string(reinterpret_cast<const char*>(room.data()), length) : "contradicts";
    };
    for (const auto* refused : {"TWFuTQ", "", "-", "T=Fu", "TW Fu"}) EXPECT_EQ(decoded(refused), "") << refused;
    EXPECT_EQ(decoded("TWFu", false, 3) + decoded("TWFu", false, 2), "Man");
    EXPECT_EQ(decoded("TWE=") + decoded("TQ==TWFu") + decoded("TWFu TWFu"), "MaMMan");
    EXPECT_EQ(decoded("TW Fu\nTWFu", true) + decoded(std::string("TWFu\0TWFu", 9), true), "ManManMan");
    EXPECT_EQ(decoded("++//") + decoded("T===") + decoded("===="), std::string("\xfb\xef\xffL\0\0\0\0\0", 9));
}

}  // namespace
