#include "qvx/read/header_copies.h"

#include <algorithm>

#include "qvx/crypto/ssh_key.h"
#include "qvx/read/magic_search.h"

namespace tarnwick::qvx {

namespace {

// What most readers need from the end of an archive: footer, last block and root, and often the index.
constexpr std::uint64_t usualEnd = 131072;

// Each try costs a key agreement; somebody may have planted any number of headers.
constexpr unsigned maxTries = 16;

struct Copies {
    Result<HeaderCopy> first;
    Result<HeaderCopy> last;
    bool hasFooterEnd = false;

    [[nodiscard]] bool areEqual() const { return first && last && first->bytes == last->bytes; }
    [[nodiscard]] bool areIntact() const { return hasFooterEnd && areEqual(); }
};

Result<HeaderCopy> readCopy(const ArchiveFile& file, std::uint64_t position) {
    // At the end of the file, all bytes that there are: the decoder reports what is wrong with them.
    const std::uint64_t left = file.size() - std::min(file.size(), position);
    std::vector<std::uint8_t> bytes(std::min<std::uint64_t>(left, headerSize(maxRecipients)));
    if (Status read = file.read(position, bytes); !read) return read.error();
    auto header = decodeFileHeader(bytes);
    if (!header) return header.error();
    bytes.resize(headerSize(header->recipients.size()));
    return HeaderCopy{std::move(bytes), std::move(*header)};
}

// No byte more than the header: it could not be read again.
Result<HeaderCopy> readStreamHeader(const ArchiveFile& file) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t recipients = 1;; ++recipients) {
        const std::size_t had = bytes.size();
        bytes.resize(headerSize(recipients));
        if (Status read = file.read(had, MutableBytes(bytes).subspan(had)); !read) return read.error();
        auto header = decodeFileHeader(bytes);
        if (header) return HeaderCopy{std::move(bytes), std::move(*header)};
        if (recipients == maxRecipients) return header.error();
    }
}

std::optional<std::size_t> readFooterEnd(const ArchiveFile& file) {
    std::array<std::uint8_t, footerEndSize> end{};
    if (file.size() < end.size() || !file.read(file.size() - end.size(), end)) return std::nullopt;
    return decodeFooterEnd(end);
}

// Even if the end of the footer is damaged, the header says how long its copy is.
Copies readCopies(const ArchiveFile& file) {
    Copies copies{readCopy(file, 0), Error{"the footer is missing"}};
    file.willRead(file.size() - std::min(file.size(), usualEnd), file.size());
    auto length = readFooterEnd(file);
    copies.hasFooterEnd = length.has_value();
    if (!length && copies.first) length = copies.first->bytes.size();
    // The copy must come after the header.
    if (!length || file.size() < 2 * *length + footerEndSize) return copies;
    copies.last = readCopy(file, file.size() - footerEndSize - *length);
    if (copies.last && copies.last->bytes.size() != *length) copies.last = Error{"the footer has another length"};
    return copies;
}

bool isIntact(const HeaderCopy& copy, EVP_PKEY* key) { return key && unsealHeader(copy.header, copy.bytes, key); }

// Without a key, two different copies may both be intact.
std::string describeDamage(const Copies& copies, EVP_PKEY* key) {
    if (!copies.first && !copies.last) return copies.first.error().text;
    if (!copies.last && !copies.hasFooterEnd) return "the archive is cut, or bytes follow it: its end is not a footer";
    if (copies.areEqual()) return "the end of the footer is damaged";
    if (!copies.last) return "the copy of the header in the footer is damaged";
    if (!copies.first) return "the header is damaged; its copy in the footer is intact";
    const bool first = isIntact(*copies.first, key);
    const bool last = isIntact(*copies.last, key);
    if (first && !last) return "the copy of the header in the footer is damaged";
    if (last && !first) return "the header is damaged; its copy in the footer is intact";
    return "the header and its copy in the footer differ";
}

ReadFault damage(const Copies& copies, EVP_PKEY* key) {
    auto text = describeDamage(copies, key);
    if (copies.first || copies.last) text += "; `qvx extract --salvage` extracts the intact files";
    return readFault(std::move(text));
}

OpenFault otherKey(const FileHeader& header, EVP_PKEY* key) {
    std::string text = header.recipients.size() > 1 ? "sealed to other keys, " : "sealed to another key, ";
    for (const auto& recipient : header.recipients) {
        if (&recipient != &header.recipients.front()) text += ", ";
        text += fingerprintText(recipient.fingerprint);
    }
    const auto point = publicPointOf(key);
    if (point) text += "; this one is " + fingerprintText(sshFingerprint(*point));
    return {readFault(std::move(text)), true};
}

Result<OpenedHeader, OpenFault> unseal(HeaderCopy copy, EVP_PKEY* key) {
    auto unsealed = unsealHeader(copy.header, copy.bytes, key);
    if (unsealed) return OpenedHeader{std::move(copy), std::move(*unsealed)};
    if (unsealed.error() == HeaderFault::otherKey) return otherKey(copy.header, key);
    if (unsealed.error() == HeaderFault::sealedKey)
        return OpenFault{readFault("the content key in the header is damaged")};
    return OpenFault{readFault("the header was changed: its tag is wrong")};
}

// A header that is not at its place, because bytes are missing before or after it.
std::optional<OpenedHeader> searchHeader(const ArchiveFile& file, EVP_PKEY* key) {
    MagicSearch search(file, fileMagic);
    std::uint64_t position = search.find(0);
    for (unsigned tries = 0; position < file.size() && tries < maxTries; position = search.find(position + 1)) {
        auto copy = readCopy(file, position);
        if (!copy) continue;
        auto opened = unseal(std::move(*copy), key);
        if (opened) return std::move(*opened);
        if (!opened.error().otherKey) ++tries;
    }
    return std::nullopt;
}

}  // namespace

Result<HeaderCopy, ReadFault> readHeader(const ArchiveFile& file) {
    auto copies = readCopies(file);
    if (const Status readable = file.state(); !readable) return ReadFault{readable.error()};
    if (!copies.areIntact()) return damage(copies, nullptr);
    return std::move(*copies.first);
}

Result<OpenedHeader, OpenFault> openHeader(const ArchiveFile& file, EVP_PKEY* key) {
    auto copies = readCopies(file);
    if (!copies.areIntact()) return OpenFault{damage(copies, key)};
    return unseal(std::move(*copies.first), key);
}

Result<OpenedHeader, OpenFault> openStreamHeader(const ArchiveFile& file, EVP_PKEY* key) {
    auto header = readStreamHeader(file);
    if (!header) return OpenFault{ReadFault{header.error()}};
    return unseal(std::move(*header), key);
}

Result<OpenedHeader, OpenFault> salvageHeader(const ArchiveFile& file, EVP_PKEY* key) {
    const auto copies = readCopies(file);
    if (copies.areIntact()) return unseal(*copies.first, key);
    std::optional<OpenedHeader> opened;
    for (const auto* copy : {&copies.first, &copies.last}) {
        if (!*copy || opened) continue;
        if (auto unsealed = unseal(**copy, key)) opened = std::move(*unsealed);
    }
    if (!opened) opened = searchHeader(file, key);
    if (opened) opened->damage = readFault(describeDamage(copies, key));
    if (opened) return std::move(*opened);
    // Nothing in the file can be opened with this key.
    for (const auto* copy : {&copies.first, &copies.last})
        if (*copy) return unseal(**copy, key).error();
    return OpenFault{readFault(describeDamage(copies, key))};
}

}  // namespace tarnwick::qvx
