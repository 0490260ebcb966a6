#include "qvx/read/archive_walk.h"

#include <limits>

namespace tarnwick::qvx {

bool ArchiveWalk::take(const OpenedBlock& block) {
    block_ = block.place;
    if (block.fault) {
        fault_ = *block.fault;
        if (entry_.inEntry()) fault_.path = entry_.head().path;
        return false;
    }
    map_.add(block.place);
    audit_.addBlock(block);
    if (block.last() != (phase_ == Phase::trailer)) return refuse("the last block is not where it must be");
    // A reader that starts at the end of the file looks for a block of this length there.
    if (block.last() && block.header.sealedLength != lastBlockSize - blockHeaderSize)
        return refuse("the last block is of a wrong length");
    needsLeader_ = block.header.flags & blockWithDictionary;
    RecordCursor cursor(block.plain);
    std::size_t offset = 0;
    auto digest = block.digests.begin();
    while (auto record = cursor.next()) {
        // The workers computed the digests of entries that are complete in this block.
        if (digest != block.digests.end() && digest->offset == offset) record->contentDigest = (digest++)->digest;
        if (!takeRecord(*record, {count_, block.place.sequence, offset})) return false;
        offset = cursor.offset();
    }
    if (cursor.damaged()) return refuse("the block holds something that is no record");
    return !block.last() || phase_ == Phase::complete || refuse("the trailer is missing");
}

bool ArchiveWalk::takeRecord(const Record& record, const EntryPlace& place) {
    if (joiner_.joining()) return takeIndexRecord(record, place);
    switch (record.type) {
        case RecordType::index:
        case RecordType::root: joinedPlace_ = place; return takeIndexRecord(record, place);
        case RecordType::trailer: {
            if (phase_ != Phase::trailer || place.offset != 0) return refuse("the trailer is not where it must be");
            phase_ = Phase::complete;
            const char* what = audit_.checkTrailer(record.payload);
            return !what || refuse(what);
        }
        default: return takeEntryRecord(record, place);
    }
}

bool ArchiveWalk::takeEntryRecord(const Record& record, const EntryPlace& place) {
    if (phase_ != Phase::entries) return refuse("an entry stands behind the root");
    if (record.type == RecordType::entry) entryPlace_ = place;
    switch (entry_.take(record)) {
        case EntryReader::Step::more:
            return entry_.head().number == count_ || refuseEntry("the entry has a wrong number");
        case EntryReader::Step::whole: return deliver();
        case EntryReader::Step::stopped: stopped_ = true; return false;
        case EntryReader::Step::damaged: break;
    }
    return refuseEntry(entry_.what().c_str());
}

bool ArchiveWalk::deliver() {
    if (const char* what = table_.resolve(entry_)) return refuseEntry(what);
    if (const char* what = audit_.addEntry(entryPlace_, entry_)) return refuseEntry(what);
    table_.add(entryPlace_, entry_);
    ++count_;
    stopped_ = !entry_.deliver([this](EntrySink& sink) {
        const EntryPlace* place = table_.placeOf(*entry_.tail().contentOf);
        return place && readContent(random_, *place, entry_.tail(), sink);
    });
    return !stopped_;
}

bool ArchiveWalk::takeIndexRecord(const Record& record, const EntryPlace& place) {
    if (entry_.inEntry()) return refuseEntry("the entry has no end");
    if (phase_ != Phase::entries) return refuse("something stands behind the root");
    const bool root = record.type == RecordType::root;
    // A reader that starts at the trailer reads the root before it knows any leader, and from the beginning of a block.
    if (root && needsLeader_) return refuse("a block of the root is not to be read without another");
    if (root && place.offset != 0) return refuse("the root does not begin its block");
    // The format does not limit the size of the root; it cannot be larger than the file.
    const std::uint64_t limit = root ? file_.size() : maxIndexLength;
    switch (joiner_.take(record, static_cast<std::size_t>(limit))) {
        case RecordJoiner::State::partial: return true;
        case RecordJoiner::State::damaged: return refuse("a split record is not continued, or too long");
        case RecordJoiner::State::whole: break;
    }
    if (root) phase_ = Phase::trailer;
    const char* what = root ? audit_.checkRoot(joiner_.payload(), joinedPlace_.block)
                            : audit_.checkPart(joiner_.payload(), joinedPlace_);
    return !what || refuse(what);
}

bool ArchiveWalk::refuse(const char* what) {
    fault_ = blockFault(block_, what);
    return false;
}

bool ArchiveWalk::refuseEntry(const char* what) {
    refuse(what);
    fault_.path = entry_.head().path;
    return false;
}

}  // namespace tarnwick::qvx
