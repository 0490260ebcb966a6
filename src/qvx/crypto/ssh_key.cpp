#include "qvx/crypto/ssh_key.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <new>

namespace tarnwick::qvx {

namespace {

constexpr std::string_view keyType = "ecdsa-sha2-nistp256";

// The blob up to the point: two texts and the length of the point. Each length has 32 bits, big-endian.
constexpr std::string_view blobFront(
    "\0\0\0\x13"
    "ecdsa-sha2-nistp256"
    "\0\0\0\x08"
    "nistp256"
    "\0\0\0\x41",
    39);
constexpr std::size_t blobSize = blobFront.size() + std::tuple_size_v<Point>;
constexpr std::size_t base64Size = (blobSize + 2) / 3 * 4;

std::array<std::uint8_t, blobSize> blobOf(const Point& point) {
    std::array<std::uint8_t, blobSize> blob{};
    std::copy(point.begin(), point.end(), std::copy(blobFront.begin(), blobFront.end(), blob.begin()));
    return blob;
}

std::string encodeBase64(Bytes bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // the encoder adds a zero byte
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(), static_cast<int>(bytes.size()));
    text.pop_back();
    return text;
}

bool isBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
           c == '=';
}

}  // namespace

Digest sshFingerprint(const Point& point) {
    const auto blob = blobOf(point);
    Digest digest{};
    if (!SHA256(blob.data(), blob.size(), digest.data())) throw std::bad_alloc();
    return digest;
}

std::string fingerprintText(const Digest& fingerprint) {
    auto text = encodeBase64(fingerprint);
    text.erase(text.find('='));
    return "SHA256:" + text;
}

std::string sshKeyLine(const Point& point) { return std::string(keyType) + ' ' + encodeBase64(blobOf(point)); }

std::optional<Point> parseSshKeyLine(std::string_view line) {
    if (!line.starts_with(keyType) || line.substr(keyType.size(), 1) != " ") return std::nullopt;
    const auto base64 = line.substr(keyType.size() + 1, base64Size);
    // What follows the key: a comment, the end of the line (`next` is then empty, which find() accepts), or damage.
    const auto next = line.substr(keyType.size() + 1 + base64.size()).substr(0, 1);
    if (base64.size() != base64Size || !std::all_of(base64.begin(), base64.end(), isBase64Character) ||
        std::string_view(" \t\r\n").find(next) == std::string_view::npos)
        return std::nullopt;

    // EVP_DecodeBlock skips white space at both ends, and the point would then begin at another byte. The check above
    // allows none.
    std::array<std::uint8_t, base64Size / 4 * 3> decoded{};
    if (EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(base64.data()), base64Size) < 0)
        return std::nullopt;
    Point point;
    std::copy_n(decoded.begin() + blobFront.size(), point.size(), point.begin());
    // Comparing with the line made from the point also checks the bytes before the point, and unused bits at the end of
    // the base64 text.
    if (!line.starts_with(sshKeyLine(point))) return std::nullopt;
    return point;
}

}  // namespace tarnwick::qvx
