#include "qvx/read/stored_metadata.h"

namespace tarnwick::qvx {

Result<void, ReadFault> StoredMetadataReader::read(const ChosenEntry& chosen) {
    begun_ = false;
    joiner_.reset();
    for (std::uint64_t sequence = chosen.block; sequence <= chosen.lastBlock();) {
        if (!findBlock(sequence) || block_->place.sequence > chosen.lastBlock()) return fault();
        const State state = readBlock(chosen);
        if (state == State::damaged) return fault();
        if (state == State::complete && block_->place.sequence != chosen.lastBlock()) return fault();
        if (state == State::complete) return visit_(entry_), Result<void, ReadFault>();
        sequence = block_->place.sequence + 1;
    }
    return fault();
}

// The first block at or after that number which the pipeline returns.
bool StoredMetadataReader::findBlock(std::uint64_t sequence) {
    while (!block_ || block_->place.sequence < sequence) {
        block_ = blocks_.next();
        if (!block_) return false;
    }
    return !block_->fault;
}

StoredMetadataReader::State StoredMetadataReader::readBlock(const ChosenEntry& chosen) {
    RecordCursor cursor(block_->plain, begun_ ? 0 : chosen.offset);
    while (const auto record = cursor.next()) {
        const State state = consume(*record, chosen);
        if (state != State::partial) return state;
    }
    return cursor.damaged() ? State::damaged : State::partial;
}

StoredMetadataReader::State StoredMetadataReader::consume(const Record& record, const ChosenEntry& chosen) {
    if (!begun_) return begin(record, chosen);
    if (record.type == RecordType::end) return end(record);
    if (joiner_.joining()) return State::damaged;
    if (record.type == RecordType::hole || record.type == RecordType::pad) return State::partial;
    if (record.type != RecordType::data) return State::damaged;
    if (entry_.head.type != EntryType::link) return State::partial;
    entry_.target.append(record.payload.begin(), record.payload.end());
    return entry_.target.size() <= maxTargetLength ? State::partial : State::damaged;
}

// The index is untrusted input: the entry at this place must be the one that was chosen.
StoredMetadataReader::State StoredMetadataReader::begin(const Record& record, const ChosenEntry& chosen) {
    auto head = record.type == RecordType::entry && block_->place.sequence == chosen.block
                    ? decodeEntryHead(record.payload)
                    : std::nullopt;
    if (!head || !chosen.isBegunBy(*head) || !choice_(head->number, head->path)) return State::damaged;
    begun_ = true;
    entry_ = {std::move(*head), {}, {}};
    return State::partial;
}

StoredMetadataReader::State StoredMetadataReader::end(const Record& record) {
    const auto joined = joiner_.add(record, maxEndLength);
    if (joined == RecordJoiner::State::partial) return State::partial;
    auto tail = joined == RecordJoiner::State::complete ? decodeEntryTail(joiner_.payload()) : std::nullopt;
    if (!tail) return State::damaged;
    entry_.tail = std::move(*tail);
    return State::complete;
}

ReadFault StoredMetadataReader::fault() const {
    const std::string subject = begun_ ? entryName(entry_.head.path) : std::string();
    if (block_ && block_->fault) return blockFault(block_->place, Error{block_->fault->text, 0, subject});
    const Error mismatch{"the index does not match the entry", 0, subject};
    return block_ ? blockFault(block_->place, mismatch) : ReadFault{mismatch};
}

}  // namespace tarnwick::qvx
