#include "qvx/read/chosen_entry_reader.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxHinted = 12;  // blocks
constexpr const char* entryMismatch = "the index does not match the entry";

std::uint32_t hashOf(std::string_view path) { return static_cast<std::uint32_t>(std::hash<std::string_view>()(path)); }

}  // namespace

ChosenEntry::ChosenEntry(std::uint64_t entryNumber, const IndexEntry& entry)
    : block(entry.block & (maxBlocks - 1)),
      offset(entry.offset & (blockSize - 1)),
      span(entry.span & (maxBlocks - 1)),
      incomplete(entry.incomplete),
      number(static_cast<std::uint32_t>(entryNumber)),
      pathHash(hashOf(entry.path)) {}

bool ChosenEntry::isBegunBy(const EntryHead& head) const {
    return head.number == number && hashOf(head.path) == pathHash;
}

Result<void, ReadFault> chooseEntries(ArchiveIndex& index, const EntryChoice& choice, ChosenEntries& chosen) {
    auto visited = index.visit([&](std::uint64_t number, const IndexEntry& entry) {
        if (choice(number, entry.path)) chosen.emplace_back(number, entry);
        return true;
    });
    std::ranges::sort(chosen, {}, &ChosenEntry::place);
    return visited;
}

ChosenBlocks::ChosenBlocks(const ArchiveFile& file, const BlockMap& map, const ChosenEntries& chosen, Part part)
    : file_(file), map_(map) {
    // An END that begins with an empty part at the end of a block fills two more, and 8 bytes of a fourth.
    constexpr std::uint64_t beginBlocks = 2, endBlocks = 4;
    static_assert(maxEndLength <= 2 * std::size_t{blockSize});
    for (const ChosenEntry& entry : chosen) {
        const bool skips = part == Part::metadata && entry.span >= beginBlocks + endBlocks;
        if (skips) add(entry.block, entry.block + beginBlocks - 1);
        add(skips ? entry.lastBlock() + 1 - endBlocks : entry.block, entry.lastBlock());
    }
    file_.expect(bytes());
}

void ChosenBlocks::add(std::uint64_t first, std::uint64_t last) {
    const Range range{static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last)};
    if (ranges_.empty() || range.first > ranges_.back().last + 1)
        ranges_.push_back(range);
    else
        ranges_.back().last = std::max(ranges_.back().last, range.last);
}

// A hostile archive may have any places.
std::uint64_t ChosenBlocks::bytes() const {
    std::uint64_t sum = 0;
    for (const Range& range : ranges_) {
        const auto begin = map_.find(range.first);
        const auto next = map_.find(std::uint64_t{range.last} + 1);
        const std::uint64_t end = next ? next->position : file_.blocksEnd();
        if (begin && begin->position < end) sum += end - begin->position;
    }
    return sum;
}

std::optional<BlockPipeline::Task> ChosenBlocks::operator()() {
    if (ahead_ <= maxHinted / 2) lookAhead();
    const auto sequence = next(supplied_);
    if (!sequence) return std::nullopt;
    --ahead_;
    if (const auto place = map_.find(*sequence)) return BlockPipeline::Task{unopenedBlock(file_, *place)};
    return BlockPipeline::Task{{{*sequence, 0}, {}, {}, ReadFault{{"there is no such block"}, *sequence}}};
}

std::optional<std::uint64_t> ChosenBlocks::next(Cursor& cursor) const {
    if (cursor.range == ranges_.size()) return std::nullopt;
    const Range& range = ranges_[cursor.range];
    const std::uint32_t block = std::max(cursor.block, range.first);
    cursor.block = block + 1;
    if (block == range.last) ++cursor.range;
    return block;
}

// Blocks that follow one another are one hint.
void ChosenBlocks::lookAhead() {
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    for (std::optional<std::uint64_t> block; ahead_ < maxHinted && (block = next(hinted_)); ++ahead_) {
        if (*block != end) willReadBlocks(file_, map_, first, end);
        if (*block != end) first = *block;
        end = *block + 1;
    }
    willReadBlocks(file_, map_, first, end);
}

bool LateSink::begin(const EntryHead& head) {
    head_ = &head;
    return true;
}

bool LateSink::finish(const EntryTail& tail, const ContentReader& content) {
    return start() && sink_.finish(tail, content);
}

void LateSink::abandon() {
    if (!std::exchange(head_, nullptr)) sink_.abandon();
}

bool LateSink::start() {
    const EntryHead* head = std::exchange(head_, nullptr);
    return !head || sink_.begin(*head);
}

// The loop ends at the block where the index says that the entry ends, or when the pipeline has no more blocks.
ReadOutcome ChosenEntryReader::read(const ChosenEntry& chosen) {
    std::size_t offset = chosen.offset;
    for (std::uint64_t sequence = chosen.block; sequence <= chosen.lastBlock(); ++sequence, offset = 0) {
        if (auto found = findBlock(sequence); !found) return found;
        RecordCursor cursor(block_->plain, offset);
        while (const auto record = cursor.next()) {
            auto outcome = entry_.consume(*record);
            if (outcome.fault()) return damaged(*outcome.fault());
            if (!outcome) return outcome;
            // The index is untrusted input. The entry at this place must have the number and the path from the index.
            // Others may have the same hash, but the path is a chosen one in any case.
            const bool begins = record->type == RecordType::entry;
            if (begins && !(chosen.isBegunBy(entry_.head()) && choice_(chosen.number, entry_.head().path)))
                return damaged(entry_.error(entryMismatch));
            if (entry_.isComplete()) return deliver(chosen);
        }
        if (cursor.damaged()) return damaged(entry_.error("the block contains something that is not a record"));
    }
    return damaged(entry_.error(entryMismatch));
}

ReadOutcome ChosenEntryReader::findBlock(std::uint64_t sequence) {
    while (!block_ || block_->place.sequence < sequence) {
        block_ = blocks_.next();
        if (!block_) return damaged(entry_.error(entryMismatch));
    }
    if (block_->place.sequence != sequence) return damaged(entry_.error(entryMismatch));
    if (block_->fault) return damaged(entry_.error(block_->fault->text));
    return {};
}

ReadOutcome ChosenEntryReader::deliver(const ChosenEntry& chosen) {
    const bool incomplete = entry_.tail().unreadable.has_value();
    if (block_->place.sequence != chosen.lastBlock() || incomplete != bool(chosen.incomplete))
        return damaged(entry_.error(entryMismatch));
    const auto content = entry_.tail().contentOf;
    if (content && !table_.contains(*content)) return defer(chosen);
    if (const Status resolved = table_.resolve(entry_); !resolved) return damaged(resolved.error());
    if (const Status added = table_.add(chosen.place(), entry_); !added) return damaged(added.error());
    return entry_.deliver([&](EntrySink& sink) {
        return contents_.read(*content, table_.placeOf(*content), entry_.tail().content, sink);
    });
}

// The entry with the content is not chosen.
ReadOutcome ChosenEntryReader::defer(const ChosenEntry& chosen) {
    if (const Status added = deferred_.add(chosen.place(), entry_); !added) return damaged(added.error());
    entry_.abandon();
    return {};
}

ReadOutcome ChosenEntryReader::damaged(const Error& error) {
    entry_.abandon();
    if (!block_) return ReadFault{error};
    return blockFault(block_->place, error);
}

}  // namespace tarnwick::qvx
