// A root in one piece, where the library reads it bit by bit.
#pragma once

#include "qvx/format/index_codec.h"

namespace tarnwick::qvx {

inline std::optional<ArchiveRoot> decodeRoot(Bytes payload) {
    RootDecoder decoder(payload);
    ArchiveRoot root{decoder.entries(), {}, {}};
    while (const auto part = decoder.nextPart()) root.parts.push_back(*part);
    while (const auto length = decoder.nextLength()) root.sealedLengths.push_back(*length);
    return decoder.complete() ? std::optional(root) : std::nullopt;
}

}  // namespace tarnwick::qvx
