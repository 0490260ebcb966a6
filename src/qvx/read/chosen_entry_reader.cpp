#include "qvx/read/chosen_entry_reader.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

constexpr const char* indexMismatch = "the index does not match the entry";

}  // namespace

Result<std::vector<ChosenEntry>, ReadFault> chooseEntries(ArchiveIndex& index, std::size_t part,
                                                          const EntryChoice& choice) {
    std::vector<ChosenEntry> entries;
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        // An entry ends no later than the block in which the next entry begins; the last entry of a part ends no later
        // than the block of that index part.
        if (!entries.empty() && entries.back().place.number + 1 == number) entries.back().lastBlock = entry.block;
        if (choice(number, entry.path))
            entries.push_back({{number, entry.block, entry.offset}, std::max(entry.block, index.partBlock(part))});
        return true;
    };
    if (auto visited = index.visitPart(part, visit); !visited) return visited.error();
    return entries;
}

std::optional<BlockPipeline::Task> ChosenBlocks::operator()() {
    while (next_ < chosen_.size() && chosen_[next_].lastBlock < sequence_) ++next_;
    if (next_ == chosen_.size()) return std::nullopt;
    sequence_ = std::max(sequence_, chosen_[next_].place.block);
    const std::uint64_t sequence = sequence_++;
    if (const auto place = map_.find(sequence)) return BlockPipeline::Task{unopenedBlock(file_, *place)};
    return BlockPipeline::Task{{{sequence, 0}, {}, {}, ReadFault{{"there is no such block"}, sequence}}};
}

// This loop ends even if the entry has no END record: findBlock() fails when the pipeline has no more blocks.
ReadOutcome ChosenEntryReader::read(const EntryPlace& place) {
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        if (auto found = findBlock(sequence); !found) return found;
        RecordCursor cursor(block_->plain, offset);
        while (const auto record = cursor.next()) {
            auto outcome = entry_.consume(*record);
            if (outcome.fault()) return damaged(*outcome.fault());
            if (!outcome) return outcome;
            // The index is untrusted input. The entry at this place must have the number from the index, and its path
            // must be a chosen one, too.
            if (entry_.head().number != place.number || !choice_(place.number, entry_.head().path))
                return damaged(entry_.error(indexMismatch));
            if (entry_.isComplete()) return deliver(place);
        }
        if (cursor.damaged()) return damaged(entry_.error("the block contains something that is not a record"));
    }
}

ReadOutcome ChosenEntryReader::findBlock(std::uint64_t sequence) {
    while (!block_ || block_->place.sequence < sequence) {
        block_ = blocks_.next();
        if (!block_) return damaged(entry_.error(indexMismatch));
    }
    if (block_->place.sequence != sequence) return damaged(entry_.error(indexMismatch));
    if (block_->fault) return damaged(entry_.error(block_->fault->text));
    return {};
}

ReadOutcome ChosenEntryReader::deliver(const EntryPlace& place) {
    // A reference that the table cannot resolve is not damage yet: the entry with the content may be one that is not
    // chosen. Its content is found through the index and compared with the digest of this entry.
    static_cast<void>(table_.resolve(entry_));
    table_.add(place, entry_);
    return entry_.deliver([&](EntrySink& sink) {
        const auto source = locate(*entry_.tail().contentOf);
        return source && readContent(index_.blocks(), *source, entry_.tail(), sink);
    });
}

std::optional<EntryPlace> ChosenEntryReader::locate(std::uint64_t number) {
    std::optional<EntryPlace> place;
    const std::size_t part = index_.partOf(number);
    if (part == index_.parts()) return place;
    const auto visit = [&](std::uint64_t visited, const IndexEntry& entry) {
        if (visited == number) place = EntryPlace{number, entry.block, entry.offset};
        return visited < number;
    };
    // If the part is damaged, no place is found. The sink then reports that the content cannot be read.
    static_cast<void>(index_.visitPart(part, visit));
    return place;
}

ReadOutcome ChosenEntryReader::damaged(const Error& error) {
    entry_.abandon();
    if (!block_) return ReadFault{error};
    return blockFault(block_->place, error);
}

}  // namespace tarnwick::qvx
