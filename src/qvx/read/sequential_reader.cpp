#include "qvx/read/sequential_reader.h"

namespace tarnwick::qvx {

ReadOutcome SequentialReader::consume(const OpenedBlock& block) {
    block_ = block.place;
    if (block.fault) {
        ReadFault fault = *block.fault;
        if (entry_.inEntry()) fault.subject = entryName(entry_.head().path);
        return fault;
    }
    // Needed later to read the content of an earlier entry again.
    map_.add(block.place);
    if (const Status checked = checkPlace(block); !checked) return damagedUnless(checked);
    mayHaveRoot_ = !block.header.leads() && !block.header.needsLeader();
    RecordCursor cursor(block.plain);
    std::size_t offset = 0;
    auto digest = block.digests.begin();
    while (auto record = cursor.next()) {
        // The workers computed the digests of entries that are complete in this block.
        if (digest != block.digests.end() && digest->offset == offset) record->contentDigest = (digest++)->digest;
        if (auto outcome = consumeRecord(*record, recordPlace(block, offset)); !outcome) return outcome;
        offset = cursor.offset();
    }
    if (cursor.damaged()) return damaged("the block contains something that is not a record");
    if (block.last() && phase_ != Phase::complete) return damaged("the trailer is missing");
    return {};
}

ReadOutcome SequentialReader::finish() const {
    if (phase_ == Phase::complete) return {};
    // Reached only when a worker has run out of memory: a truncated archive has a fault in a block.
    return readFault("out of memory; the archive was not read to its end");
}

Status SequentialReader::checkPlace(const OpenedBlock& block) const {
    if (block.last() != (phase_ == Phase::trailer)) return Error{"the last block is not where it must be"};
    // The length is fixed, so that a reader can find the last block from the end of the file.
    if (block.last() && block.header.sealedLength != lastBlockSize - blockHeaderSize)
        return Error{"the last block has a wrong length"};
    return {};
}

ReadOutcome SequentialReader::consumeRecord(const Record& record, const RecordPlace& place) {
    if (joiner_.joining()) return consumeIndexRecord(record, place);
    const bool skipped = record.type == RecordType::pad || isAddition(record.type);
    if (skipped && phase_ == Phase::entries && !entry_.inEntry()) return {};
    switch (record.type) {
        case RecordType::index:
        case RecordType::root: joinedPlace_ = place; return consumeIndexRecord(record, place);
        case RecordType::trailer: return consumeTrailer(record, place);
        default: return consumeEntryRecord(record, place);
    }
}

ReadOutcome SequentialReader::consumeEntryRecord(const Record& record, const RecordPlace& place) {
    if (phase_ != Phase::entries) return damaged("an entry is after the root");
    if (record.type == RecordType::entry) entryPlace_ = place;
    auto outcome = entry_.consume(record);
    if (outcome.fault()) return blockFault(block_, *outcome.fault());
    if (!outcome) return outcome;
    return entry_.isComplete() ? deliver() : ReadOutcome();
}

ReadOutcome SequentialReader::deliver() {
    // Before the audit: resolve() gives a reference the size of its content, which the index states.
    if (const Status checked = table_.resolve(entry_); !checked) return damagedUnless(checked);
    audit_.addEntry(entryPlace_, block_.sequence, entry_);
    if (const Status added = table_.add(entryPlace_, entry_); !added) return damagedUnless(added);
    return entry_.deliver([this](EntrySink& sink) {
        const std::uint64_t number = *entry_.tail().contentOf;
        return contents_.read(number, table_.placeOf(number), entry_.tail().content, sink);
    });
}

ReadOutcome SequentialReader::consumeIndexRecord(const Record& record, const RecordPlace& place) {
    if (entry_.inEntry()) return damagedUnless(entry_.error("the entry has no end"));
    if (phase_ != Phase::entries) return damaged("there is a record after the root");
    const bool root = record.type == RecordType::root;
    // A reader that starts at the trailer reads the root first: it has no leader yet, and knows the block of the root
    // but no offset in it.
    if (root && place.offset != 0) return damaged("the root does not begin its block");
    if (root && !mayHaveRoot_) return damaged("a block of the root is a leader or needs one");
    const std::size_t limit = root ? maxRootLength(audit_.entries(), place.block) : maxIndexLength;
    switch (joiner_.add(record, limit)) {
        case RecordJoiner::State::partial: return {};
        case RecordJoiner::State::damaged: return damaged("a split record is not continued, or too long");
        case RecordJoiner::State::complete: break;
    }
    if (!root) return damagedUnless(audit_.checkPart(joiner_.payload(), joinedPlace_));
    phase_ = Phase::trailer;
    return damagedUnless(audit_.checkRoot(joiner_.payload(), joinedPlace_.block));
}

ReadOutcome SequentialReader::consumeTrailer(const Record& record, const RecordPlace& place) {
    if (phase_ != Phase::trailer || place.offset != 0) return damaged("the trailer is not where it must be");
    phase_ = Phase::complete;
    return damagedUnless(audit_.checkTrailer(record.payload));
}

ReadOutcome SequentialReader::damaged(const char* text) const { return blockFault(block_, text); }

ReadOutcome SequentialReader::damagedUnless(const Status& checked) const {
    if (checked) return {};
    return blockFault(block_, checked.error());
}

}  // namespace tarnwick::qvx
