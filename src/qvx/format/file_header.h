// The plain header at the beginning of an archive file.
#pragma once

#include <array>

#include "base/error.h"
#include "qvx/format/format.h"

namespace tarnwick::qvx {

struct PlainHeader {
    std::uint32_t groupLength = 1;
    Digest recipient{};  // fingerprint of the recipient's key
    Point encapsulated{};
};

std::array<std::uint8_t, plainHeaderSize> encodePlainHeader(const PlainHeader& header);

// Decodes the header at the beginning of `file`. The error says whether this is no archive, whether it ends within the
// header, or whether a version, profile, compression, block size, group length or flag is not supported.
Result<PlainHeader> decodePlainHeader(Bytes file);

}  // namespace tarnwick::qvx
