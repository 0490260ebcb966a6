#include "config/archive_public_key.h"

#include <array>
#include <cctype>
#include <cstring>
#include <optional>
#include <string_view>

namespace tarnwick {

namespace {

constexpr std::string_view keyType = "ecdsa-sha2-nistp256";
constexpr std::string_view curveName = "nistp256";
constexpr std::size_t blobBufferSize = 256;  // bounds the blob; a longer one is refused

std::optional<std::uint32_t> base64Value(char character) {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (character == '=') return 0;
    const auto position = alphabet.find(character);
    return position == std::string_view::npos ? std::nullopt : std::optional(static_cast<std::uint32_t>(position));
}

// Reads the fields of a blob in order, never past the capacity of the blob.
class BlobFields {
public:
    BlobFields(const std::byte* blob, std::uint64_t capacity) : blob_(blob), capacity_(capacity) {}

    // The next field's bytes; nothing when its length or its data run past the capacity.
    std::optional<std::string_view> next() {
        if (capacity_ - position_ < 4) return std::nullopt;
        std::uint64_t length = 0;
        for (int i = 0; i < 4; ++i) length = length << 8 | std::to_integer<std::uint64_t>(blob_[position_++]);
        if (length > capacity_ - position_) return std::nullopt;
        const auto* data = reinterpret_cast<const char*>(blob_ + position_);
        position_ += length;
        return std::string_view(data, length);
    }

private:
    const std::byte* blob_;
    std::uint64_t capacity_;
    std::uint64_t position_ = 0;  // never past capacity_
};

}  // namespace

bool parseArchivePublicKey(const std::string& keyText, std::byte* point, std::uint64_t& pointLength) {
    if (!keyText.starts_with(keyType)) return false;
    if (keyText.at(keyType.size()) != ' ') return false;
    const std::string_view encoded = std::string_view(keyText).substr(keyType.size() + 1);
    std::array<std::byte, blobBufferSize> blob{};
    std::uint64_t blobLength = 0;
    if (!decodeBase64(encoded.size(), encoded.data(), false, blob.size(), blobLength, blob.data())) return false;
    if (!parseKeyBlob(point, pointLength, blob.data(), blob.size())) return false;
    return pointLength != 0;
}

bool decodeBase64(std::uint64_t sourceLength, const char* source, bool skipWhitespace, std::uint64_t capacity,
                  std::uint64_t& decodedLength, std::byte* decoded) {
    decodedLength = 0;
    std::uint64_t produced = 0;
    std::uint32_t group = 0;
    int inGroup = 0;
    int padding = 0;
    const auto store = [&](int bytes) {
        for (int shift = 16; bytes > 0; --bytes, shift -= 8, ++produced)
            if (produced < capacity) decoded[produced] = static_cast<std::byte>(group >> shift & 0xff);
    };
    bool ended = false;
    for (std::uint64_t i = 0; i < sourceLength && source[i] != '\0' && !ended; ++i) {
        const auto value = base64Value(source[i]);
        if (!value && skipWhitespace && std::isspace(static_cast<unsigned char>(source[i]))) continue;
        if (!value) break;
        if (source[i] == '=') {
            ++padding;
        } else if (padding > 0) {
            return false;
        }
        group = group << 6 | *value;
        if (++inGroup < 4) continue;
        // One or two padding characters end the text. Three or four are not padding; they count as zero bits.
        ended = padding == 1 || padding == 2;
        store(ended ? 3 - padding : 3);
        group = 0;
        inGroup = 0;
    }
    if (inGroup != 0 || produced == 0 || produced > capacity) return false;
    decodedLength = produced;
    return true;
}

bool parseKeyBlob(std::byte* point, std::uint64_t& pointLength, const std::byte* blob, std::uint64_t blobCapacity) {
    BlobFields fields(blob, blobCapacity);
    if (fields.next() != keyType) return false;
    if (fields.next() != curveName) return false;
    const auto found = fields.next();
    if (!found || found->size() != publicPointLength) return false;
    std::memcpy(point, found->data(), publicPointLength);
    pointLength = publicPointLength;
    return true;
}

}  // namespace tarnwick
