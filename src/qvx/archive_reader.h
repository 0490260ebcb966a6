// Reads an archive: lists it from its index, extracts chosen entries, checks all of it, and salvages a damaged one.
// docs/qvx-format.md describes the format; qvx/archive_writer.h writes it.
//
// An archive is hostile until it is checked: anybody can seal one to a public key. No function here allocates more than
// a small multiple of what it has read from the file. EntrySink::finish() is called only for entries that match the
// digests in the archive, except by searchChosen().
#pragma once

#include <functional>
#include <memory>

#include "qvx/read/block_cache.h"
#include "qvx/read/chosen_entry_reader.h"
#include "qvx/read/header_copies.h"
#include "qvx/read/stored_metadata.h"

namespace tarnwick::qvx {

class ArchiveReader {
public:
    using FaultReport = std::function<void(const ReadFault&)>;

    enum class Opening { intact, salvage };

    // Unseals the content key with the private key of a recipient. Fails when the header or the footer is damaged; for
    // salvage, one intact header anywhere in the file is enough. Of an archive in a stream, only the header is read,
    // and only readAll() may be called.
    static Result<std::unique_ptr<ArchiveReader>, OpenFault> open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key,
                                                                  Opening opening = Opening::intact);

    // Calls `visit` for the index entries by number until it returns false. Reads only the index. Fails when the index
    // is damaged.
    Result<void, ReadFault> list(const ArchiveIndex::Visitor& visit);

    // The same, but reports damaged parts of the index and continues after them. Fails when there is no index.
    Result<void, ReadFault> listIntact(const ArchiveIndex::Visitor& visit, const FaultReport& report);

    // Opens blocks at any place, for EntryContent, once the index was read. The reader must outlive the cache.
    std::unique_ptr<BlockCache> cacheBlocks(std::uint64_t bytes);

    // Reads the chosen entries in the order in which they are stored, and only the blocks that contain them; last those
    // whose content is in an entry that is not chosen. Ends at the first damage.
    ReadOutcome readChosen(const EntryChoice& choice, EntrySink& sink);

    // Calls `visit` with the metadata of the chosen entries in the order in which they are stored. Reads the blocks in
    // which these begin and end, not those between. Contents are not read and not checked. Ends at the first damage.
    Result<void, ReadFault> readMetadata(const EntryChoice& choice, const StoredMetadataReader::Visitor& visit);

    // Passes the contents of the chosen entries to a search, in the order of readChosen(). Computes no digests: the
    // seals of the blocks show that nothing was changed. Continues after damage, which it reports once for each block.
    // If the index is damaged or the archive comes from a pipe, the sink gets every entry that can be read, also those
    // that are not chosen. The outcome is never a fault.
    ReadOutcome searchChosen(const EntryChoice& choice, EntrySink& sink, const FaultReport& report);

    // Reads the whole archive and checks everything: each block and its place, each record, size and digest, each
    // reference; index, root and trailer against the entries and blocks; and that nothing follows the last block but
    // the footer. Ends at the first damage.
    ReadOutcome readAll(EntrySink& sink);

    // Reads every entry whose blocks are intact, wherever they are in the file, and reports what is damaged or lost.
    // Complete also when something was reported.
    ReadOutcome salvage(EntrySink& sink, const FaultReport& report);

    // Only readAll() may be called.
    [[nodiscard]] bool isStream() const { return file_->isStream(); }

    // Whether salvage() may find more after a fault: not in a stream, and not when a connection is lost.
    [[nodiscard]] bool canSalvage() const { return !file_->isStream() && file_->state(); }

private:
    ArchiveReader(std::unique_ptr<ArchiveFile> file, const OpenedHeader& header)
        : file_(std::move(file)), keys_(header.unsealed.keys.block), headerDamage_(header.damage) {}

    Result<void, ReadFault> loadIndex();
    ReadOutcome readStored(ChosenEntries& chosen, const EntryChoice& choice, EntrySink& sink, RereadContents& contents,
                           DeferredEntries& deferred);
    ReadOutcome searchStored(ChosenEntries& chosen, const EntryChoice& choice, EntrySink& sink,
                             RereadContents& contents, DeferredEntries& deferred, const FaultReport& report);
    void reportLost(const std::vector<std::uint32_t>& found, const FaultReport& report);

    std::unique_ptr<ArchiveFile> file_;
    MessageKeys keys_;
    std::optional<ReadFault> headerDamage_;
    std::unique_ptr<ArchiveIndex> index_;
};

}  // namespace tarnwick::qvx
