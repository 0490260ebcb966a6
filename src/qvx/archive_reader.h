// Reads an archive: lists it from its index, extracts chosen entries, checks all of it, and salvages a damaged one.
// docs/qvx-format.md describes the format; qvx/archive_writer.h writes it.
//
// An archive is hostile until it is checked: anybody can seal one to a public key. No function here allocates more than
// a small multiple of what it has read from the file. EntrySink::finish() is called only for entries that match the
// digests in the archive.
#pragma once

#include <functional>
#include <memory>

#include "qvx/read/chosen_entry_reader.h"

namespace tarnwick::qvx {

class ArchiveReader {
public:
    using FaultReport = std::function<void(const ReadFault&)>;

    // Derives the keys of the archive from its header and the private key of the recipient. Fails when the header is
    // damaged. A private key that does not belong to the archive is not noticed here: the fingerprint in the header
    // differs, and no block can be unsealed.
    static Result<std::unique_ptr<ArchiveReader>, ReadFault> open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key);

    // Calls `visit` for the index entries in archive order until it returns false. Reads only the index. Fails when the
    // index is damaged.
    Result<void, ReadFault> list(const ArchiveIndex::Visitor& visit);

    // Reads the chosen entries in archive order, and only the blocks that contain them. Ends at the first damage.
    ReadOutcome readChosen(const EntryChoice& choice, EntrySink& sink);

    // Reads the whole archive and checks everything: each block and its place, each record, size and digest, each
    // reference; index, root and trailer against the entries and blocks; and that nothing follows the last block. Ends
    // at the first damage.
    ReadOutcome readAll(EntrySink& sink);

    // Reads every entry whose blocks are intact, wherever they are in the file, and reports what is damaged or lost.
    // Complete also when something was reported.
    ReadOutcome salvage(EntrySink& sink, const FaultReport& report);

private:
    ArchiveReader(std::unique_ptr<ArchiveFile> file, const HpkeKeys& keys) : file_(std::move(file)), keys_(keys) {}

    Result<void, ReadFault> loadIndex();
    void reportNames(std::uint64_t first, std::uint64_t end, const FaultReport& report);

    std::unique_ptr<ArchiveFile> file_;
    HpkeKeys keys_;
    std::unique_ptr<ArchiveIndex> index_;
};

}  // namespace tarnwick::qvx
