#include "config/archive_public_key.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <vector>

using namespace tarnwick;

namespace {

std::string field(const std::string& data, std::size_t length) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(length >> shift & 0xff);
    return bytes + data;
}

const std::string type = "ecdsa-sha2-nistp256", point = "\x04" + std::string(64, 'p');

std::string blob(const std::string& typeInside, const std::string& curve, const std::string& pointInside = point) {
    return field(typeInside, typeInside.size()) + field(curve, curve.size()) + field(pointInside, pointInside.size());
}

std::string keyLine(const std::string& bytes) {
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    const auto* source = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), source, int(bytes.size()));
    return type + " " + text.substr(0, static_cast<std::size_t>(length));
}

// The point, or the empty text when the key line is refused.
std::string pointOf(const std::string& line) {
    std::array<std::byte, publicPointLength> found{};
    std::uint64_t length = 0;
    if (!parseArchivePublicKey(line, found.data(), length)) return {};
    EXPECT_EQ(length, publicPointLength);
    return {reinterpret_cast<const char*>(found.data()), found.size()};
}

TEST(ArchivePublicKey, IsTakenWhateverFollowsTheBase64Text) {
    const auto good = blob(type, "nistp256");
    for (const auto* tail : {"", " comment", "\n", "\r\nmore", "-", " ===="})
        EXPECT_EQ(pointOf(keyLine(good) + tail), point) << tail;
    EXPECT_EQ(pointOf(keyLine(good + std::string(152, 'x'))), point) << "256 bytes just fit";
    EXPECT_EQ(pointOf(keyLine(good.substr(0, 94))), point.substr(0, 55) + std::string(10, '\0'))
        << "missing bytes of the point count as zeros";
}

TEST(ArchivePublicKey, IsRefusedWhenItIsNotSuchALine) {
    const auto good = blob(type, "nistp256"), line = keyLine(good);
    auto tab = line;
    tab[19] = '\t';
    for (const auto& bad :
         {std::string("ecdsa-sha2-nistp25"), " " + line, tab, "ssh-rsa " + line, line.substr(0, 159), type + " ",
          keyLine(blob(type, "nistp384")), keyLine(blob(type, "nistp256", point.substr(0, 33))),
          keyLine(blob("ecdsa-sha2-nistp384", "nistp256")), keyLine(good + std::string(153, 'x')),
          keyLine(field(type, 0xfffffffc))})
        EXPECT_EQ(pointOf(bad), "") << bad;
    EXPECT_THROW(pointOf(type), std::out_of_range);
}

TEST(Base64, EndsFailsAndSkipsAsItsRulesSay) {
    const struct {
        std::string source;
        bool skip;
        std::uint64_t capacity;
        std::optional<std::string> decoded;
    } cases[] = {{"TWFu", false, 3, "Man"},
                 {"TWE=", false, 2, "Ma"},
                 {"TQ==TWFu", false, 9, "M"},
                 {"TWFuTQ", false, 9, {}},
                 {"TWFu", false, 2, {}},
                 {"", false, 9, {}},
                 {"-", false, 9, {}},
                 {"T=Fu", false, 9, {}},
                 {"TWFu TWFu", false, 9, "Man"},
                 {"TW Fu\nTWFu", true, 9, "ManMan"},
                 {"TW Fu", false, 9, {}},
                 {std::string("TWFu\0TWFu", 9), true, 9, "Man"},
                 {"++//", false, 3, "\xfb\xef\xff"},
                 {"T===", false, 9, std::string("L\0\0", 3)},
                 {"====", false, 9, std::string(3, '\0')}};
    for (const auto& [source, skip, capacity, expected] : cases) {
        std::vector<std::byte> room(capacity);  // exactly, so that the sanitizer sees an overrun
        std::uint64_t length = 99;
        const bool good = decodeBase64(source.size(), source.data(), skip, capacity, length, room.data());
        ASSERT_EQ(good, expected.has_value()) << source;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(room.data()), length), expected.value_or("")) << source;
    }
}

}  // namespace
