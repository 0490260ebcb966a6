// The header at the beginning of an archive file, and the footer with its copy.
#pragma once

#include <optional>
#include <vector>

#include "base/error.h"
#include "qvx/crypto/content_key.h"
#include "qvx/format/format.h"

namespace tarnwick::qvx {

struct Recipient {
    Digest fingerprint{};  // of the recipient's key
    SealedContentKey key;
};

struct FileHeader {
    Salt salt{};
    std::vector<Recipient> recipients;  // 1 to maxRecipients
    Digest tag{};
};

std::vector<std::uint8_t> encodeFileHeader(const FileHeader& header);

// Decodes the header at the beginning of `file`. The error says whether this is no archive, whether it ends within the
// header, or whether the header is damaged or of another version. Does not check the tag.
Result<FileHeader> decodeFileHeader(Bytes file);

// The recipient with the fingerprint; null when there is none.
const Recipient* findRecipient(const FileHeader& header, const Digest& fingerprint);

// `header` has been encoded.
std::vector<std::uint8_t> encodeFooter(Bytes header);

// The length of the copy of the header, from the last `footerEndSize` bytes of the file. None when they are not the end
// of a footer.
std::optional<std::size_t> decodeFooterEnd(Bytes end);

}  // namespace tarnwick::qvx
