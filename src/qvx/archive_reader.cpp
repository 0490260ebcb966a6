#include "qvx/archive_reader.h"

#include <algorithm>

#include "qvx/read/block_scan.h"
#include "qvx/read/salvage_reader.h"
#include "qvx/read/sequential_reader.h"

namespace tarnwick::qvx {

namespace {

std::string lossText(std::uint64_t first, std::uint64_t end) {
    if (end - first == 1) return "entry " + std::to_string(first) + " is lost";
    return "entries " + std::to_string(first) + " to " + std::to_string(end - 1) + " are lost";
}

}  // namespace

Result<std::unique_ptr<ArchiveReader>, OpenFault> ArchiveReader::open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key,
                                                                      Opening opening) {
    const auto opened = opening == Opening::salvage ? salvageHeader(*file, key) : openHeader(*file, key);
    if (!opened) return opened.error();
    const std::uint64_t header = opened->copy.bytes.size();
    // For salvage, the footer may be missing: then this is where its copy of the header would be.
    file->setBlocks(header, file->size() - std::min(file->size(), header + footerEndSize));
    return std::unique_ptr<ArchiveReader>(new ArchiveReader(std::move(file), *opened));
}

Result<void, ReadFault> ArchiveReader::loadIndex() {
    if (index_) return {};
    auto loaded = ArchiveIndex::load(*file_, keys_);
    if (!loaded) return loaded.error();
    index_ = std::move(*loaded);
    return {};
}

Result<void, ReadFault> ArchiveReader::list(const ArchiveIndex::Visitor& visit) {
    if (auto loaded = loadIndex(); !loaded) return loaded;
    bool continues = true;
    const auto visitOne = [&](std::uint64_t number, const IndexEntry& entry) {
        continues = visit(number, entry);
        return continues;
    };
    for (std::size_t part = 0; continues && part < index_->parts(); ++part)
        if (auto visited = index_->visitPart(part, visitOne); !visited) return visited;
    return {};
}

ReadOutcome ArchiveReader::readChosen(const EntryChoice& choice, EntrySink& sink) {
    if (auto loaded = loadIndex(); !loaded) return loaded.error();
    EntryTable table;
    for (std::size_t part = 0; part < index_->parts(); ++part) {
        const auto entries = chooseEntries(*index_, part, choice);
        if (!entries) return entries.error();
        if (entries->empty()) continue;
        BlockPipeline blocks(*file_, keys_, ChosenBlocks(*file_, index_->map(), *entries), &index_->map());
        ChosenEntryReader reader(blocks, *index_, choice, sink, table);
        for (const auto& entry : *entries)
            if (auto outcome = reader.read(entry.place); !outcome) return outcome;
    }
    return {};
}

ReadOutcome ArchiveReader::readAll(EntrySink& sink) {
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
    const BlockMap map = scanForBlocks(*file_, keys_);
    const auto indexed = loadIndex();
    if (!indexed) report(indexed.error());
    const auto reportLoss = [&](std::uint64_t first, std::uint64_t end) {
        report(readFault(lossText(first, end)));
        if (indexed) reportNames(first, end, report);
    };
    SalvageReader reader(*file_, keys_, map, sink, report, reportLoss);
    BlockPipeline blocks(*file_, keys_, MappedBlocks(*file_, map));
    while (const auto block = blocks.next())
        if (auto outcome = reader.consume(*block); !outcome) return outcome;
    const std::uint64_t end = reader.finish();
    if (indexed && end < index_->entries()) reportLoss(end, index_->entries());
    return {};
}

void ArchiveReader::reportNames(std::uint64_t first, std::uint64_t end, const FaultReport& report) {
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        if (number >= first && number < end) report({{"lost", 0, entryName(entry.path)}, entry.block});
        return number < end;
    };
    // The numbers are reported already. Where a part of the index is damaged, their names are not known.
    for (std::size_t part = index_->partOf(first); part < index_->parts() && index_->partFirst(part) < end; ++part)
        static_cast<void>(index_->visitPart(part, visit));
}

}  // namespace tarnwick::qvx
