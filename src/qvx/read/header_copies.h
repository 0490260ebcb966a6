// The header of an archive file and its copy in the footer.
#pragma once

#include "qvx/format/header_seal.h"
#include "qvx/read/archive_file.h"

namespace tarnwick::qvx {

struct HeaderCopy {
    std::vector<std::uint8_t> bytes;
    FileHeader header;
};

struct OpenFault : ReadFault {
    bool otherKey = false;  // the key is not that of a recipient
};

struct OpenedHeader {
    HeaderCopy copy;
    UnsealedHeader unsealed;
    std::optional<ReadFault> damage = std::nullopt;  // of the other copy; salvageHeader() only
};

// The header, without a key. Fails unless the footer is intact and its copy is equal to the header. The error says
// which of them is damaged when that can be told.
Result<HeaderCopy, ReadFault> readHeader(const ArchiveFile& file);

// The same with the private key of a recipient, which also proves that the header is unchanged.
Result<OpenedHeader, OpenFault> openHeader(const ArchiveFile& file, EVP_PKEY* key);

// The same for a stream, whose footer is checked when it is reached.
Result<OpenedHeader, OpenFault> openStreamHeader(const ArchiveFile& file, EVP_PKEY* key);

// Opens either copy. If neither is intact and at its place, searches the file for a header.
Result<OpenedHeader, OpenFault> salvageHeader(const ArchiveFile& file, EVP_PKEY* key);

}  // namespace tarnwick::qvx
