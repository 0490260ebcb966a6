// The key that archives are sealed to: one line in the public-key form of SSH (RFC 4253, section 6.6, and RFC 5656),
//   "ecdsa-sha2-nistp256", one space, base64 of the key blob, and anything after it.
// The blob is three fields, each a 32-bit big-endian length and that many bytes: the key type, the curve name
// "nistp256", and the public point, uncompressed (65 bytes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnwick {

inline constexpr std::size_t publicPointLength = 65;

// Fills `point` (room for 65 bytes) and `pointLength` from a key line; true exactly when a point was produced. Whether
// the point lies on the curve is for the archive library to say. Throws std::out_of_range when the line ends right
// after the key type.
bool parseArchivePublicKey(const std::string& keyText, std::byte* point, std::uint64_t& pointLength);

// Base64 of RFC 4648. A zero byte or any byte outside the alphabet ends the text without failing (white space can be
// skipped instead), and so does a padded group, whatever follows it. Returns false for an empty text, an incomplete
// last group, a data character after padding, and more bytes than `capacity`, which is never overrun.
bool decodeBase64(std::uint64_t sourceLength, const char* source, bool skipWhitespace, std::uint64_t capacity,
                  std::uint64_t& decodedLength, std::byte* decoded);

// Takes the point out of a key blob. Bounds are those of the buffer, `blobCapacity`, not of what was decoded into it:
// the buffer is zero-filled, and a point that the text cut short reads as ending in zeros.
bool parseKeyBlob(std::byte* point, std::uint64_t& pointLength, const std::byte* blob, std::uint64_t blobCapacity);

}  // namespace tarnwick
