#include "config/archive_public_key.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <vector>

using namespace tarnwick;

namespace {

// A key blob whose fields can be spoilt one by one.
struct Blob {
    std::string type = "ecdsa-sha2-nistp256";
    std::string curve = "nistp256";
    std::string point = "\x04" + std::string(64, 'p');
    std::string trailing;

    [[nodiscard]] std::string bytes() const { return field(type) + field(curve) + field(point) + trailing; }

    static std::string field(const std::string& data, std::uint32_t length) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(length >> shift & 0xff);
        return bytes + data;
    }
    static std::string field(const std::string& data) { return field(data, static_cast<std::uint32_t>(data.size())); }
};

std::string base64(const std::string& bytes) {
    constexpr auto alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t group = 0;
        for (std::size_t k = i; k < i + 3; ++k)
            group = group << 8 | (k < bytes.size() ? static_cast<unsigned char>(bytes[k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k) text += i + k > bytes.size() ? '=' : alphabet[group >> (18 - 6 * k) & 63];
    }
    return text;
}

std::string keyLine(const std::string& blob) { return "ecdsa-sha2-nistp256 " + base64(blob); }

// The point, or the empty text when the key line is refused.
std::string pointOf(const std::string& line) {
    std::array<std::byte, publicPointLength> point{};
    std::uint64_t length = 0;
    if (!parseArchivePublicKey(line, point.data(), length)) return {};
    EXPECT_EQ(length, publicPointLength);
    return {reinterpret_cast<const char*>(point.data()), point.size()};
}

TEST(ArchivePublicKey, TakesThePointWhateverFollowsTheBase64Text) {
    const std::string line = keyLine(Blob().bytes());
    ASSERT_EQ(line.size(), 160u);
    for (const auto* tail : {"", " comment", "\n", "\r\nmore", "-", " ===="})
        EXPECT_EQ(pointOf(line + tail), Blob().point) << tail;
    Blob longBlob;
    longBlob.trailing = std::string(152, 'x');  // 256 bytes: just fits
    EXPECT_EQ(pointOf(keyLine(longBlob.bytes())), longBlob.point);
}

TEST(ArchivePublicKey, RefusesWhatIsNotSuchALine) {
    const std::string line = keyLine(Blob().bytes());
    Blob curve, compressed, type, tooLong;
    curve.curve = "nistp384";
    compressed.point.resize(33);
    type.type = "ecdsa-sha2-nistp384";
    tooLong.trailing = std::string(153, 'x');
    std::string tab = line;
    tab[19] = '\t';
    for (const auto& bad :
         {std::string("ecdsa-sha2-nistp25"), " " + line, tab, "ssh-ed25519 " + base64("x"),
          "ssh-rsa ecdsa-sha2-nistp256 " + base64(Blob().bytes()), line.substr(0, 159),
          std::string("ecdsa-sha2-nistp256 "), keyLine(curve.bytes()), keyLine(compressed.bytes()),
          keyLine(type.bytes()), keyLine(tooLong.bytes()), keyLine(Blob::field("ecdsa-sha2-nistp256", 0xfffffffc))})
        EXPECT_EQ(pointOf(bad), "") << bad;
    EXPECT_THROW(pointOf("ecdsa-sha2-nistp256"), std::out_of_range);
}

TEST(ArchivePublicKey, ReadsMissingBytesOfThePointAsZeros) {
    const std::string blob = Blob().bytes();
    EXPECT_EQ(pointOf(keyLine(blob.substr(0, blob.size() - 10))), Blob().point.substr(0, 55) + std::string(10, '\0'));
}

TEST(Base64, EndsFailsAndSkipsAsItsRulesSay) {
    struct Case {
        std::string source;
        bool skip;
        std::uint64_t capacity;
        std::optional<std::string> decoded;
    };
    const Case cases[] = {
        {"TWFu", false, 3, "Man"},
        {"TWE=", false, 2, "Ma"},
        {"TQ==", false, 1, "M"},
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
        {"T===", false, 9, std::string("L\0\0", 3)},
        {"====", false, 9, std::string(3, '\0')},
        {"++//", false, 3, "\xfb\xef\xff"},
    };
    for (const auto& each : cases) {
        std::vector<std::byte> room(each.capacity);  // exactly, so that the sanitizer sees an overrun
        std::uint64_t length = 99;
        const bool decoded =
            decodeBase64(each.source.size(), each.source.data(), each.skip, each.capacity, length, room.data());
        ASSERT_EQ(decoded, each.decoded.has_value()) << each.source;
        const std::string got(reinterpret_cast<const char*>(room.data()), decoded ? length : 0);
        EXPECT_EQ(got, each.decoded.value_or("")) << each.source;
        EXPECT_EQ(length, got.size()) << each.source;
    }
}

}  // namespace
