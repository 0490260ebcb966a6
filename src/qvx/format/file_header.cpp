#include "qvx/format/file_header.h"

#include <algorithm>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t countOffset = 28;
constexpr std::size_t saltOffset = 32;

std::uint8_t* put(std::uint8_t* to, Bytes bytes) { return std::copy(bytes.begin(), bytes.end(), to); }

Recipient readRecipient(WireReader& in) {
    Recipient recipient;
    for (const MutableBytes field : {MutableBytes(recipient.fingerprint), MutableBytes(recipient.key.encapsulated),
                                     MutableBytes(recipient.key.sealed)})
        std::ranges::copy(in.bytes(field.size()), field.begin());
    return recipient;
}

bool areDistinct(const std::vector<Recipient>& recipients) {
    std::vector<Digest> fingerprints;
    fingerprints.reserve(recipients.size());
    for (const auto& recipient : recipients) fingerprints.push_back(recipient.fingerprint);
    std::ranges::sort(fingerprints);
    return std::ranges::adjacent_find(fingerprints) == fingerprints.end();
}

}  // namespace

std::vector<std::uint8_t> encodeFileHeader(const FileHeader& header) {
    std::vector<std::uint8_t> bytes(headerSize(header.recipients.size()));
    std::copy(fileMagic.begin(), fileMagic.end(), bytes.begin());
    putLittleEndian<2>(bytes.data() + 8, formatVersion);
    putLittleEndian<2>(bytes.data() + 10, profileHpke);
    putLittleEndian<4>(bytes.data() + 12, compressionZstd);
    putLittleEndian<8>(bytes.data() + 16, streamFlags);
    putLittleEndian<4>(bytes.data() + 24, blockSize);
    putLittleEndian<2>(bytes.data() + countOffset, header.recipients.size());
    std::uint8_t* next = put(bytes.data() + saltOffset, header.salt);
    for (const auto& [fingerprint, key] : header.recipients)
        next = put(put(put(next, fingerprint), key.encapsulated), key.sealed);
    put(next, header.tag);
    return bytes;
}

Result<FileHeader> decodeFileHeader(Bytes file) {
    if (file.size() < fileMagic.size() || !std::equal(fileMagic.begin(), fileMagic.end(), file.begin()))
        return Error{"not a qvx archive"};
    if (file.size() < headerSize(1)) return Error{"the archive ends within its header"};
    const Error damaged{"the header is damaged, or of a version that is not supported"};
    const std::uint64_t count = getLittleEndian<2>(file.data() + countOffset);
    if (count == 0 || count > maxRecipients) return damaged;
    if (file.size() < headerSize(count)) return Error{"the archive ends within its header"};
    FileHeader header;
    WireReader in(file.subspan(saltOffset));
    std::ranges::copy(in.bytes(header.salt.size()), header.salt.begin());
    for (std::uint64_t i = 0; i < count; ++i) header.recipients.push_back(readRecipient(in));
    std::ranges::copy(in.bytes(header.tag.size()), header.tag.begin());
    // Every other field has one valid value, so a valid header is exactly the one that we would write.
    const auto expected = encodeFileHeader(header);
    if (!std::equal(expected.begin(), expected.end(), file.begin()) || !areDistinct(header.recipients)) return damaged;
    return header;
}

const Recipient* findRecipient(const FileHeader& header, const Digest& fingerprint) {
    const auto found = std::ranges::find(header.recipients, fingerprint, &Recipient::fingerprint);
    return found == header.recipients.end() ? nullptr : &*found;
}

std::vector<std::uint8_t> encodeFooter(Bytes header) {
    std::vector<std::uint8_t> bytes(header.size() + footerEndSize);
    std::uint8_t* end = put(bytes.data(), header);
    putLittleEndian<4>(end, header.size());
    put(end + 4, endMark);
    return bytes;
}

std::optional<std::size_t> decodeFooterEnd(Bytes end) {
    if (end.size() != footerEndSize || !std::equal(endMark.begin(), endMark.end(), end.begin() + 4))
        return std::nullopt;
    const auto length = static_cast<std::size_t>(getLittleEndian<4>(end.data()));
    for (std::size_t count = 1; count <= maxRecipients; ++count)
        if (length == headerSize(count)) return length;
    return std::nullopt;
}

}  // namespace tarnwick::qvx
