// Reads an archive: lists it from its index, extracts chosen entries, checks all of it, and salvages a damaged one.
// docs/qvx-format.md describes the format; qvx/archive_writer.h writes it.
//
// An archive is hostile until it is checked: anybody can seal one to a public key. No function here allocates more than
// a small multiple of what it has read from the file. EntrySink::finish() is called only for entries that match the
// digests in the archive.
#pragma once

#include <functional>
#include <string_view>

#include "qvx/read/entry_reader.h"
#include "qvx/read/index_reader.h"

namespace tarnwick::qvx {

class ArchiveReader {
public:
    using FaultReport = std::function<void(const ReadFault&)>;
    using Choice = std::function<bool(std::uint64_t number, std::string_view path)>;

    // Derives the keys of the archive from its header and the private key of the recipient. Null when the header is
    // damaged; `fault` says why. A private key that does not belong to the archive is not noticed here: the fingerprint
    // in the header differs, and no block can be unsealed.
    static std::unique_ptr<ArchiveReader> open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key, ReadFault& fault);

    // Calls `visit` for the index entries in archive order until it returns false. Reads only the index. False when the
    // index is damaged.
    bool list(const ArchiveIndex::Visitor& visit, ReadFault& fault);

    // Reads the chosen entries in archive order, and only the blocks that hold them. `taken` becomes their count. False
    // at the first damage, and when the sink stops (`fault` is empty then).
    bool readChosen(const Choice& chosen, EntrySink& sink, std::uint64_t& taken, ReadFault& fault);

    // Reads the whole archive and checks everything: each block and its place, each record, size and digest, each
    // reference; index, root and trailer against the entries and blocks; and that nothing follows the last block. False
    // at the first damage, and when the sink stops (`fault` is empty then).
    bool readAll(EntrySink& sink, ReadFault& fault);

    // Reads every entry whose blocks are intact, wherever they are in the file, and reports what is damaged or lost.
    // False when the sink stops.
    bool salvage(EntrySink& sink, const FaultReport& report);

private:
    ArchiveReader(std::unique_ptr<ArchiveFile> file, const HpkeKeys& keys) : file_(std::move(file)), keys_(keys) {}

    bool loadIndex(ReadFault& fault);
    void reportNames(std::uint64_t first, std::uint64_t end, const FaultReport& report);

    std::unique_ptr<ArchiveFile> file_;
    HpkeKeys keys_;
    std::unique_ptr<ArchiveIndex> index_;
};

}  // namespace tarnwick::qvx
