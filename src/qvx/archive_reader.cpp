#include "qvx/archive_reader.h"

#include <algorithm>

#include "qvx/read/block_scan.h"
#include "qvx/read/salvage_reader.h"
#include "qvx/read/sequential_reader.h"

namespace tarnwick::qvx {

namespace {

// The count of those of the numbers from `first` to one before `end` that are not in `found`, which ascends.
std::uint64_t countMissing(const std::vector<std::uint32_t>& found, std::uint64_t first, std::uint64_t end) {
    const auto present = std::ranges::lower_bound(found, end) - std::ranges::lower_bound(found, first);
    return end - first - static_cast<std::uint64_t>(present);
}

// What is left of the outcome when damage is reported.
ReadOutcome reportFault(ReadOutcome outcome, const ArchiveReader::FaultReport& report) {
    if (!outcome.fault()) return outcome;
    report(*outcome.fault());
    return {};
}

Result<OpenedHeader, OpenFault> openEither(const ArchiveFile& file, EVP_PKEY* key, ArchiveReader::Opening opening) {
    if (file.isStream()) return openStreamHeader(file, key);
    return opening == ArchiveReader::Opening::salvage ? salvageHeader(file, key) : openHeader(file, key);
}

}  // namespace

Result<std::unique_ptr<ArchiveReader>, OpenFault> ArchiveReader::open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key,
                                                                      Opening opening) {
    const auto opened = openEither(*file, key, opening);
    if (const Status readable = file->state(); !opened && !readable) return OpenFault{ReadFault{readable.error()}};
    if (!opened) return opened.error();
    const std::uint64_t header = opened->copy.bytes.size();
    // For salvage, the footer may be missing: then this is where its copy of the header would be.
    file->setBlocks(header, file->size() - std::min(file->size(), header + footerEndSize));
    if (file->isStream()) file->expectFooter(encodeFooter(opened->copy.bytes));
    return std::unique_ptr<ArchiveReader>(new ArchiveReader(std::move(file), *opened));
}

Result<void, ReadFault> ArchiveReader::loadIndex() {
    if (index_) return {};
    auto loaded = ArchiveIndex::load(*file_, keys_);
    if (const Status readable = file_->state(); !loaded && !readable) return ReadFault{readable.error()};
    if (!loaded) return loaded.error();
    index_ = std::move(*loaded);
    return {};
}

Result<void, ReadFault> ArchiveReader::list(const ArchiveIndex::Visitor& visit) {
    if (auto loaded = loadIndex(); !loaded) return loaded;
    return index_->visit(visit);
}

Result<void, ReadFault> ArchiveReader::listIntact(const ArchiveIndex::Visitor& visit, const FaultReport& report) {
    if (auto loaded = loadIndex(); !loaded) return loaded;
    for (std::size_t part = 0; part < index_->parts(); ++part)
        if (const auto visited = index_->visitPart(part, visit); !visited) report(visited.error());
    return {};
}

std::unique_ptr<BlockCache> ArchiveReader::cacheBlocks(std::uint64_t bytes) {
    return std::make_unique<BlockCache>(*file_, keys_, index_->map(), bytes);
}

ReadOutcome ArchiveReader::readChosen(const EntryChoice& choice, EntrySink& sink) {
    if (auto loaded = loadIndex(); !loaded) return loaded.error();
    ChosenEntries chosen;
    const auto indexed = chooseEntries(*index_, choice, chosen);
    RereadContents contents(*file_, keys_, index_->map());
    DeferredEntries deferred;
    if (auto outcome = readStored(chosen, choice, sink, contents, deferred); !outcome) return outcome;
    // Only now: a damaged part of the index loses only the entries that it covers, and those after it.
    if (!indexed) return indexed.error();
    return deferred.deliver(*index_, choice, contents, sink);
}

// An entry that was read is freed: the tables of the readers and of the sink grow meanwhile.
ReadOutcome ArchiveReader::readStored(ChosenEntries& chosen, const EntryChoice& choice, EntrySink& sink,
                                      RereadContents& contents, DeferredEntries& deferred) {
    BlockPipeline blocks(*file_, keys_, ChosenBlocks(*file_, index_->map(), chosen), &index_->map());
    ChosenEntryReader reader(blocks, choice, sink, contents, deferred);
    for (; !chosen.empty(); chosen.pop_front())
        if (auto outcome = reader.read(chosen.front()); !outcome) return outcome;
    return {};
}

Result<void, ReadFault> ArchiveReader::readMetadata(const EntryChoice& choice,
                                                    const StoredMetadataReader::Visitor& visit) {
    if (auto loaded = loadIndex(); !loaded) return loaded;
    ChosenEntries chosen;
    if (auto indexed = chooseEntries(*index_, choice, chosen); !indexed) return indexed;
    constexpr auto part = ChosenBlocks::Part::metadata;
    BlockPipeline blocks(*file_, keys_, ChosenBlocks(*file_, index_->map(), chosen, part), &index_->map());
    StoredMetadataReader reader(blocks, choice, visit);
    for (const auto& entry : chosen)
        if (auto read = reader.read(entry); !read) return read;
    return {};
}

ReadOutcome ArchiveReader::searchChosen(const EntryChoice& choice, EntrySink& sink, const FaultReport& report) {
    if (file_->isStream()) return reportFault(readAll(sink), report);
    ChosenEntries chosen;
    auto indexed = loadIndex();
    if (indexed) indexed = chooseEntries(*index_, choice, chosen);
    if (!indexed && canSalvage()) return salvage(sink, report);
    if (!indexed) return reportFault(indexed.error(), report);
    if (headerDamage_) report(*headerDamage_);
    RereadContents contents(*file_, keys_, index_->map());
    DeferredEntries deferred;
    if (auto outcome = searchStored(chosen, choice, sink, contents, deferred, report); !outcome) return outcome;
    return reportFault(deferred.deliver(*index_, choice, contents, sink), report);
}

ReadOutcome ArchiveReader::searchStored(ChosenEntries& chosen, const EntryChoice& choice, EntrySink& sink,
                                        RereadContents& contents, DeferredEntries& deferred,
                                        const FaultReport& report) {
    BlockPipeline blocks(*file_, keys_, ChosenBlocks(*file_, index_->map(), chosen), &index_->map());
    ChosenEntryReader reader(blocks, choice, sink, contents, deferred, EntryReader::Scope::withoutDigests);
    std::optional<std::uint64_t> reported;  // block
    for (; !chosen.empty() && file_->state(); chosen.pop_front()) {
        auto outcome = reader.read(chosen.front());
        if (outcome.isStopped()) return outcome;
        if (!outcome.fault() || (reported && reported == outcome.fault()->block)) continue;
        reported = outcome.fault()->block;
        report(*outcome.fault());
    }
    return {};
}

ReadOutcome ArchiveReader::readAll(EntrySink& sink) {
    if (!isStream()) file_->expect(file_->blocksEnd() - file_->blocksBegin());
    SequentialReader reader(*file_, keys_, sink);
    BlockPipeline blocks(*file_, keys_, AllBlocks(*file_));
    ReadOutcome outcome;
    for (BlockPointer block; outcome && (block = blocks.next());) outcome = reader.consume(*block);
    if (outcome) outcome = reader.finish();
    if (!outcome) reader.abandon();
    return outcome;
}

ReadOutcome ArchiveReader::salvage(EntrySink& sink, const FaultReport& report) {
    if (headerDamage_) report(*headerDamage_);
    file_->expect(2 * file_->size());  // to find the blocks, and to open them
    const auto [map, complete] = scanForBlocks(*file_, keys_);
    if (!complete)
        report(readFault("the search for blocks ended early, because there are too many false block headers"));
    if (const auto& place = map.misplaced())
        report({{"the block is repeated or not in its place"}, place->sequence, place->position});
    const auto indexed = loadIndex();
    if (!indexed) report(indexed.error());
    SalvageReader reader(*file_, keys_, map, sink, report);
    BlockPipeline blocks(*file_, keys_, MappedBlocks(*file_, map));
    while (const auto block = blocks.next())
        if (auto outcome = reader.consume(*block); !outcome) return outcome;
    reportLost(reader.finish(), report);
    if (const Status readable = file_->state(); !readable) report(ReadFault{readable.error()});
    return {};
}

// `found` has the numbers of all other entries, ascending.
void ArchiveReader::reportLost(const std::vector<std::uint32_t>& found, const FaultReport& report) {
    const auto reportUnnamed = [&](std::uint64_t first, std::uint64_t end) {
        const std::uint64_t count = countMissing(found, first, end);
        if (count > 0) report(readFault("entries lost whose names are not known: " + std::to_string(count)));
    };
    if (!index_) return reportUnnamed(0, found.empty() ? 0 : found.back() + std::uint64_t{1});
    for (std::size_t part = 0; part < index_->parts(); ++part) {
        std::uint64_t next = index_->partFirst(part);
        const auto visited = index_->visitPart(part, [&](std::uint64_t number, const IndexEntry& entry) {
            next = number + 1;
            if (!std::ranges::binary_search(found, number)) report({{"lost", 0, entryName(entry.path)}, entry.block});
            return true;
        });
        if (visited) continue;
        report(visited.error());
        reportUnnamed(next, index_->partEnd(part));
    }
}

}  // namespace tarnwick::qvx
