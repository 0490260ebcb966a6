// Seals the content key of an archive into its header, and opens it.
#pragma once

#include <span>

#include "qvx/format/file_header.h"

namespace tarnwick::qvx {

// Each archive must have its own: two archives with the same content key and salt would have the same nonces.
struct ArchiveSecrets {
    Salt salt{};
    SecretKey contentKey;
    // One key for each recipient, each used only here. If there are none, new ones are generated; only tests pass them,
    // to get the same bytes every time.
    std::vector<KeyHandle> ephemeral{};
};

// None when the system has no random bytes.
std::optional<ArchiveSecrets> randomSecrets();

// Fails unless there are 1 to maxRecipients, all different and all points of the curve.
Status checkRecipients(std::span<const Point> recipients);

// The header of an archive for these recipients, encoded. Fails when checkRecipients() or the cipher library does.
Result<std::vector<std::uint8_t>> sealHeader(const ArchiveSecrets& secrets, std::span<const Point> recipients);

enum class HeaderFault {
    none,
    otherKey,   // the key is not one of the recipients
    sealedKey,  // the content key of this recipient is changed
    tag,        // something else is changed
};

struct UnsealedHeader {
    SecretKey contentKey;
    ArchiveKeys keys;
};

// Opens `header` with the private key of a recipient, and checks the tag. `bytes` are the same header, encoded.
Result<UnsealedHeader, HeaderFault> unsealHeader(const FileHeader& header, Bytes bytes, EVP_PKEY* key);

}  // namespace tarnwick::qvx
