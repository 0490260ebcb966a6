#include "qvx/format/header_seal.h"

#include <algorithm>

#include "qvx/crypto/ssh_key.h"

namespace tarnwick::qvx {

namespace {

std::optional<SealedContentKey> sealTo(const Point& recipient, const SecretKey& contentKey, EVP_PKEY* ephemeral,
                                       Bytes info) {
    const KeyHandle key = publicKeyFromPoint(recipient);
    const KeyHandle generated = ephemeral ? nullptr : generatePrivateKey();
    return sealContentKey(contentKey, key.get(), ephemeral ? ephemeral : generated.get(), info);
}

Bytes withoutTag(Bytes header) { return header.first(header.size() - headerTagSize); }

}  // namespace

std::optional<ArchiveSecrets> randomSecrets() {
    const auto salt = randomSalt();
    const auto contentKey = randomContentKey();
    if (!salt || !contentKey) return std::nullopt;
    return ArchiveSecrets{*salt, *contentKey};
}

Status checkRecipients(std::span<const Point> recipients) {
    if (!startCipherLibrary()) return Error{"the cipher library cannot be started"};
    if (recipients.empty() || recipients.size() > maxRecipients) return Error{"an archive has 1 to 16 recipients"};
    for (auto point = recipients.begin(); point != recipients.end(); ++point) {
        if (std::find(recipients.begin(), point, *point) != point)
            return Error{"the same recipient is given twice: " + fingerprintText(sshFingerprint(*point))};
        if (!publicKeyFromPoint(*point)) return Error{"the recipient's key is not valid"};
    }
    return {};
}

Result<std::vector<std::uint8_t>> sealHeader(const ArchiveSecrets& secrets, std::span<const Point> recipients) {
    if (Status checked = checkRecipients(recipients); !checked) return checked.error();
    FileHeader header{secrets.salt, std::vector<Recipient>(recipients.size())};
    // The count of recipients is in it, but nothing of the recipients themselves.
    const auto unsealed = encodeFileHeader(header);
    const Bytes info = Bytes(unsealed).first(fixedHeaderSize);
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        EVP_PKEY* ephemeral = secrets.ephemeral.empty() ? nullptr : secrets.ephemeral.at(i).get();
        const auto sealed = sealTo(recipients[i], secrets.contentKey, ephemeral, info);
        if (!sealed) return Error{"the keys of the archive cannot be made"};
        header.recipients[i] = {sshFingerprint(recipients[i]), *sealed};
    }
    const auto keys = deriveArchiveKeys(secrets.contentKey, secrets.salt);
    const auto tag = keys ? headerTag(keys->header, withoutTag(encodeFileHeader(header))) : std::nullopt;
    if (!tag) return Error{"the keys of the archive cannot be made"};
    header.tag = *tag;
    return encodeFileHeader(header);
}

Result<UnsealedHeader, HeaderFault> unsealHeader(const FileHeader& header, Bytes bytes, EVP_PKEY* key) {
    const auto point = publicPointOf(key);
    const Recipient* recipient = point ? findRecipient(header, sshFingerprint(*point)) : nullptr;
    if (!recipient) return HeaderFault::otherKey;
    const auto contentKey = openContentKey(recipient->key, key, bytes.first(fixedHeaderSize));
    const auto keys = contentKey ? deriveArchiveKeys(*contentKey, header.salt) : std::nullopt;
    if (!keys) return HeaderFault::sealedKey;
    if (!isHeaderTag(header.tag, keys->header, withoutTag(bytes))) return HeaderFault::tag;
    return UnsealedHeader{*contentKey, *keys};
}

}  // namespace tarnwick::qvx
