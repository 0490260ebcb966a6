#include "qvx/read/salvage_reader.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

// A hostile block may begin 131,072 entries and end none. Damage alone causes at most two faults in a block.
constexpr unsigned maxReportsOfBlock = 16;

std::string describeGap(std::uint64_t first, std::uint64_t last) {
    if (first == last) return "the block is missing or damaged";
    return "this and all blocks up to block " + std::to_string(last) + " are missing or damaged";
}

}  // namespace

ReadOutcome SalvageReader::consume(const OpenedBlock& block) {
    if (block.place.sequence > nextBlock_) {
        report({{describeGap(nextBlock_, block.place.sequence - 1)}, nextBlock_});
        abandonEntry("a part of its content is lost");
    }
    nextBlock_ = block.place.sequence + 1;
    block_ = block.place;
    reported_ = 0;
    if (block.fault) {
        abandonEntry("a part of its content is lost");
        reportBlock(*block.fault);
        return {};
    }
    RecordCursor cursor(block.plain);
    std::size_t offset = 0;
    while (const auto record = cursor.next()) {
        if (auto outcome = consumeRecord(*record, recordPlace(block, offset)); !outcome) return outcome;
        offset = cursor.offset();
    }
    if (cursor.damaged()) reportUnknownRest();
    return {};
}

std::vector<std::uint32_t> SalvageReader::finish() {
    abandonEntry("its end is lost");
    reportDamagedRun();
    removeRepeatedNumbers();
    return std::move(numbers_);
}

// A hostile archive may have one entry any number of times.
void SalvageReader::addNumber() {
    if (numbers_.size() == numbers_.capacity()) {
        removeRepeatedNumbers();
        numbers_.reserve(2 * numbers_.size() + 1);  // so that not every number is sorted again
    }
    numbers_.push_back(static_cast<std::uint32_t>(entry_.head().number));
}

void SalvageReader::removeRepeatedNumbers() {
    std::ranges::sort(numbers_);
    numbers_.erase(std::unique(numbers_.begin(), numbers_.end()), numbers_.end());
}

ReadOutcome SalvageReader::consumeRecord(const Record& record, const RecordPlace& place) {
    const bool ofEntry = record.type <= RecordType::end;  // or padding
    if (!ofEntry || record.type == RecordType::entry) abandonEntry("its end is lost");
    // The first records after a gap may belong to an entry that began earlier and is reported already.
    if (!entry_.inEntry() && record.type != RecordType::entry) return {};
    const bool begun = entry_.inEntry();
    auto outcome = entry_.consume(record);
    if (outcome.fault()) {
        // The entry reader has abandoned the entry. The next entry may be intact.
        reportEntry(*outcome.fault(), begun);
        return {};
    }
    if (!outcome) return outcome;
    if (entry_.isComplete()) return deliver();
    if (record.type == RecordType::entry) entryPlace_ = place;
    return {};
}

ReadOutcome SalvageReader::deliver() {
    Status checked = table_.resolve(entry_);
    if (checked) checked = table_.add(entryPlace_, entry_);
    if (!checked) {
        abandonEntry(checked.error().text);
        return {};
    }
    addNumber();
    // The content may be in an earlier entry whose blocks are no longer in memory, so they are opened again.
    return entry_.deliver([this](EntrySink& sink) {
        const std::uint64_t number = *entry_.tail().contentOf;
        return contents_.read(number, table_.placeOf(number), entry_.tail().content, sink);
    });
}

void SalvageReader::abandonEntry(std::string reason) {
    if (!entry_.inEntry()) return;
    reportEntry(entry_.error(std::move(reason)), true);
    entry_.abandon();
}

// Entries may follow that no index names.
void SalvageReader::reportUnknownRest() {
    if (!entry_.inEntry()) return report(blockFault(block_, "the block contains something that is not a record"));
    abandonEntry("its block contains something that is not a record");
}

// An entry that is not reported here is reported as lost, if the index has it.
void SalvageReader::reportEntry(const Error& error, bool begun) {
    if (reported_ > maxReportsOfBlock) return;
    if (reported_++ == maxReportsOfBlock) return report(blockFault(block_, "the block has more entries with faults"));
    if (begun) addNumber();
    report(blockFault(block_, error));
}

// Faults are reported in the order of the archive, so a pending run of damaged blocks comes first.
void SalvageReader::report(const ReadFault& fault) {
    reportDamagedRun();
    report_(fault);
}

// A lost leader makes the other blocks of its group unreadable. Such a run of blocks is one report.
void SalvageReader::reportBlock(const ReadFault& fault) {
    const bool continuesRun = damagedRun_ && damagedRun_->text == fault.text && fault.block == damagedRunEnd_ + 1;
    if (!continuesRun) {
        reportDamagedRun();
        damagedRun_ = fault;
    }
    damagedRunEnd_ = fault.block.value_or(0);
}

void SalvageReader::reportDamagedRun() {
    if (!damagedRun_) return;
    if (damagedRun_->block < damagedRunEnd_)
        damagedRun_->text += ", and so on up to block " + std::to_string(damagedRunEnd_);
    report_(*damagedRun_);
    damagedRun_.reset();
}

}  // namespace tarnwick::qvx
