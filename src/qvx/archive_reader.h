// Reading an archive: listing it from its index, taking out chosen entries, going through all of it, and saving what
// can be saved of a damaged one. The format is described in docs/qvx-format.md; writing is in archive_library.h.
//
// What an archive says is hostile until proved: anybody can seal one to a public key. No reader asks for more memory
// than a small multiple of what it has read from the file, and nothing reaches a sink's finish() that was not held to
// the archive's own digests.
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

    // Agrees on the keys of the archive with the recipient's private key. Null, and `fault` says why, when the header
    // is damaged; a key of somebody else shows only in the fingerprint of the header, or when no block opens.
    static std::unique_ptr<ArchiveReader> open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key, ReadFault& fault);

    // Gives the index entries in archive order until `visit` answers false, reading nothing but the index. False at
    // damage of the index.
    bool list(const ArchiveIndex::Visitor& visit, ReadFault& fault);

    // Reads the entries that are chosen, in archive order, and only the blocks that hold them. `taken` is their
    // number. False at the first damage met, and when the sink stops (then the fault says nothing).
    bool readChosen(const Choice& chosen, EntrySink& sink, std::uint64_t& taken, ReadFault& fault);

    // Goes through the whole archive and checks everything: each block and its place, each record, sum and digest, each
    // reference, index, root and trailer against what they describe, and that nothing follows. False at the first
    // damage, and when the sink stops (then the fault says nothing).
    bool readAll(EntrySink& sink, ReadFault& fault);

    // Reads every entry whose blocks are whole, wherever they stand in the file, and reports what is damaged or lost.
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
