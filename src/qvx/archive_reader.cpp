#include "qvx/archive_reader.h"

#include <algorithm>

#include "qvx/read/archive_walk.h"
#include "qvx/read/salvage.h"

namespace tarnwick::qvx {

namespace {

struct ChosenEntry {
    EntryPlace place;
    std::uint64_t lastBlock = 0;  // its END record is in this block or an earlier one
};

// Supplies the blocks of the chosen entries, each once, and the leader of a group before its other blocks.
class ChosenBlocks {
public:
    ChosenBlocks(const BlockMap& map, std::uint64_t groupLength, const std::vector<ChosenEntry>& chosen)
        : map_(map), groupLength_(groupLength), chosen_(chosen) {}

    std::optional<BlockPipeline::Task> operator()() {
        while (next_ < chosen_.size() && chosen_[next_].lastBlock < sequence_) ++next_;
        if (next_ == chosen_.size()) return std::nullopt;
        sequence_ = std::max(sequence_, chosen_[next_].place.block);
        const std::uint64_t leader = leaderOf(sequence_, groupLength_);
        if (sequence_ != leader && leader_ != leader) return task(leader, false);
        return task(sequence_++, true);
    }

private:
    BlockPipeline::Task task(std::uint64_t sequence, bool wanted) {
        if (sequence == leaderOf(sequence, groupLength_)) leader_ = sequence;
        const auto place = map_.find(sequence);
        if (place) return {*place, std::nullopt, wanted};
        return {{sequence, 0}, ReadFault{"there is no such block", sequence, std::nullopt, std::nullopt}, wanted};
    }

    const BlockMap& map_;
    std::uint64_t groupLength_;
    const std::vector<ChosenEntry>& chosen_;
    std::size_t next_ = 0;
    std::uint64_t sequence_ = 0;
    std::optional<std::uint64_t> leader_;
};

// Reads the chosen entries of one index part from the blocks that the pipeline opens.
class ChosenWalk {
public:
    ChosenWalk(BlockPipeline& blocks, ArchiveIndex& index, const ArchiveReader::Choice& chosen, EntrySink& sink,
               EntryTable& table)
        : blocks_(blocks), index_(index), chosen_(chosen), entry_(sink), table_(table) {}

    bool read(const EntryPlace& place, ReadFault& fault) {
        std::size_t offset = place.offset;
        if (!advance(place.block, fault)) return false;
        for (;; offset = 0) {
            RecordCursor cursor(block_->plain, offset);
            while (const auto record = cursor.next()) {
                const auto step = entry_.take(*record);
                // The index comes from the archive: the entry at this place must be the one that the index names, and
                // still a chosen one.
                const bool expected = entry_.head().number == place.number && chosen_(place.number, entry_.head().path);
                if (step == EntryReader::Step::more && expected) continue;
                if (step == EntryReader::Step::whole) return deliver(place, fault) || stopped(fault);
                if (step == EntryReader::Step::stopped) return stopped(fault);
                return refuse(step == EntryReader::Step::more ? "the index does not match the entry" : entry_.what(),
                              fault);
            }
            if (cursor.damaged()) return refuse("the block holds something that is no record", fault);
            if (!advance(block_->place.sequence + 1, fault)) return false;
        }
    }

private:
    bool advance(std::uint64_t sequence, ReadFault& fault) {
        while (!block_ || block_->place.sequence < sequence) {
            block_ = blocks_.next();
            if (!block_) return refuse("the index does not match the entry", fault);
        }
        if (block_->place.sequence != sequence) return refuse("the index does not match the entry", fault);
        if (!block_->fault) return true;
        refuse(block_->fault->what, fault);
        return false;
    }

    // A stop by the sink is not damage. A fault set on the way must not be reported.
    static bool stopped(ReadFault& fault) {
        fault = {};
        return false;
    }

    // The entry that holds the content need not be a chosen one, so it is found through the index.
    bool deliver(const EntryPlace& place, ReadFault& fault) {
        table_.resolve(entry_);
        table_.add(place, entry_);
        return entry_.deliver([&](EntrySink& sink) {
            const auto source = locate(*entry_.tail().contentOf, fault);
            return source && readContent(index_.blocks(), *source, entry_.tail(), sink);
        });
    }

    std::optional<EntryPlace> locate(std::uint64_t number, ReadFault& fault) {
        std::optional<EntryPlace> place;
        const std::size_t part = index_.partOf(number);
        if (part == index_.parts()) return place;
        index_.visitPart(
            part,
            [&](std::uint64_t visited, const IndexEntry& entry) {
                if (visited == number) place = EntryPlace{number, entry.block, entry.offset};
                return visited < number;
            },
            fault);
        return place;
    }

    bool refuse(std::string what, ReadFault& fault) {
        fault = block_ ? blockFault(block_->place, std::move(what)) : ReadFault{std::move(what), {}, {}, {}};
        fault.path = entry_.head().path;
        entry_.abandon();
        return false;
    }

    BlockPipeline& blocks_;
    ArchiveIndex& index_;
    const ArchiveReader::Choice& chosen_;
    EntryReader entry_;
    EntryTable& table_;
    BlockPointer block_;
};

std::optional<std::vector<ChosenEntry>> chooseEntries(ArchiveIndex& index, std::size_t part,
                                                      const ArchiveReader::Choice& chosen, ReadFault& fault) {
    std::vector<ChosenEntry> entries;
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        // An entry ends no later than the block in which the next entry begins; the last entry of a part ends no later
        // than the block of that index part.
        if (!entries.empty() && entries.back().place.number + 1 == number) entries.back().lastBlock = entry.block;
        if (chosen(number, entry.path))
            entries.push_back({{number, entry.block, entry.offset}, std::max(entry.block, index.partBlock(part))});
        return true;
    };
    if (!index.visitPart(part, visit, fault)) return std::nullopt;
    return entries;
}

}  // namespace

std::unique_ptr<ArchiveReader> ArchiveReader::open(std::unique_ptr<ArchiveFile> file, EVP_PKEY* key, ReadFault& fault) {
    const auto keys = hpkeReceive(Aead::aes256Gcm, key, file->header().encapsulated, file->boundHeader());
    if (keys) return std::unique_ptr<ArchiveReader>(new ArchiveReader(std::move(file), *keys));
    fault.what = "the encapsulated key in the header is damaged";
    return nullptr;
}

bool ArchiveReader::loadIndex(ReadFault& fault) {
    if (!index_) index_ = ArchiveIndex::load(*file_, keys_, fault);
    return index_ != nullptr;
}

bool ArchiveReader::list(const ArchiveIndex::Visitor& visit, ReadFault& fault) {
    if (!loadIndex(fault)) return false;
    bool goOn = true;
    const auto visitOne = [&](std::uint64_t number, const IndexEntry& entry) {
        goOn = visit(number, entry);
        return goOn;
    };
    for (std::size_t part = 0; goOn && part < index_->parts(); ++part)
        if (!index_->visitPart(part, visitOne, fault)) return false;
    return true;
}

bool ArchiveReader::readChosen(const Choice& chosen, EntrySink& sink, std::uint64_t& taken, ReadFault& fault) {
    taken = 0;
    if (!loadIndex(fault)) return false;
    EntryTable table;
    for (std::size_t part = 0; part < index_->parts(); ++part) {
        const auto entries = chooseEntries(*index_, part, chosen, fault);
        if (!entries) return false;
        if (entries->empty()) continue;
        BlockPipeline blocks(*file_, keys_, ChosenBlocks(index_->map(), file_->header().groupLength, *entries));
        ChosenWalk walk(blocks, *index_, chosen, sink, table);
        for (const auto& entry : *entries) {
            if (!walk.read(entry.place, fault)) return false;
            ++taken;
        }
    }
    return true;
}

bool ArchiveReader::readAll(EntrySink& sink, ReadFault& fault) {
    ArchiveWalk walk(*file_, keys_, sink);
    BlockPipeline blocks(*file_, keys_, WholeArchive(*file_));
    bool goOn = true;
    for (BlockPointer block; goOn && (block = blocks.next());) goOn = walk.take(*block);
    if (goOn && walk.complete()) return true;
    walk.abandon();
    if (!walk.stopped()) fault = walk.fault();
    if (goOn) fault.what = "the archive could not be read to its end";
    return false;
}

bool ArchiveReader::salvage(EntrySink& sink, const FaultReport& report) {
    const BlockMap map = scanForBlocks(*file_, keys_);
    ReadFault indexFault;
    const bool indexed = loadIndex(indexFault);
    if (!indexed) report(indexFault);
    const auto reportLoss = [&](std::uint64_t first, std::uint64_t end) {
        const std::string range =
            end - first == 1 ? "entry " + std::to_string(first) + " is lost"
                             : "entries " + std::to_string(first) + " to " + std::to_string(end - 1) + " are lost";
        report({range, {}, {}, {}});
        if (indexed) reportNames(first, end, report);
    };
    SalvageWalk walk(*file_, keys_, map, sink, report, reportLoss);
    std::size_t next = 0;
    BlockPipeline blocks(*file_, keys_, [&]() -> std::optional<BlockPipeline::Task> {
        if (next == map.places().size()) return std::nullopt;
        return BlockPipeline::Task{map.places()[next++]};
    });
    while (const auto block = blocks.next())
        if (!walk.take(*block)) return false;
    const std::uint64_t end = walk.end();
    if (indexed && end < index_->entries()) reportLoss(end, index_->entries());
    return true;
}

void ArchiveReader::reportNames(std::uint64_t first, std::uint64_t end, const FaultReport& report) {
    ReadFault unread;
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        if (number >= first && number < end) report({"lost", entry.block, {}, entry.path});
        return number < end;
    };
    for (std::size_t part = index_->partOf(first); part < index_->parts() && index_->partFirst(part) < end; ++part)
        index_->visitPart(part, visit, unread);
}

}  // namespace tarnwick::qvx
