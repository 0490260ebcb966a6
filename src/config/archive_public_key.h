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

// Fills `point` (65 bytes) and `pointLength` from a key line. True if and only if it found a point. The
// archive library checks whether the point is on the curve. Throws std::out_of_range when the line ends right after the
// key type.
bool parseArchivePublicKey(const std::string& keyText, std::byte* point, std::uint64_t& pointLength);

// Base64 of RFC 4648. A zero byte or any byte outside the alphabet ends the text without an error (white space is
// skipped instead with `skipWhitespace`); so does a group with padding, whatever follows it. False for an empty text,
// an incomplete last group, a data character after padding, and more bytes than `capacity`. Never writes past
// `capacity`.
bool decodeBase64(std::uint64_t sourceLength, const char* source, bool skipWhitespace, std::uint64_t capacity,
                  std::uint64_t& decodedLength, std::byte* decoded);

// Reads the point from a key blob. The bound is the size of the buffer, `blobCapacity`, not the count of decoded bytes:
// the buffer is filled with zeros, so a point that the text cut short ends in zeros.
bool parseKeyBlob(std::byte* point, std::uint64_t& pointLength, const std::byte* blob, std::uint64_t blobCapacity);

}  // namespace tarnwick
