#include "qvx/read/reread_contents.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t freeBlocks = 64;           // opened, besides two for each block of the archive
constexpr std::uint64_t bytesForBlock = 65536;     // delivered bytes that pay for one more
constexpr std::uint64_t freeBytesForRead = 65536;  // of records, besides 16 for each byte that is delivered

Error unreadable() { return {"its content cannot be read"}; }

bool hasContent(const EntryReader& entry, const std::optional<ContentCheck>& expected) {
    if (!expected) return true;
    const auto& digest = entry.tail().digest;
    const bool sameDigest = !expected->digest || (digest && checkOf(*digest) == *expected->digest);
    return sameDigest && expected->size == entry.size();
}

// An entry that others may refer to. Its place may come from the index of a hostile archive.
bool isSource(const EntryReader& entry, std::uint64_t number) {
    const EntryTail& tail = entry.tail();
    return entry.head().number == number && entry.head().type == EntryType::file && !tail.contentOf && !tail.unreadable;
}

}  // namespace

// The entry is checked again while it is read: since its digest was computed, the file may have changed.
Status RereadContents::read(std::uint64_t number, const RecordPlace& place, const std::optional<ContentCheck>& expected,
                            EntrySink& sink) {
    ++reads_;
    forwarder_.forwardTo(&sink);
    Status found = readEntry(place);
    const bool intact = found && isSource(entry_, number) && hasContent(entry_, expected);
    entry_.abandon();
    if (!found) return found;
    return intact ? Status() : unreadable();
}

Status RereadContents::readEntry(const RecordPlace& place) {
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        if (!isWithinLimit()) return Error{"its content cannot be read: too many references to re-read"};
        const auto block = blocks_.get(sequence);
        if (block->fault) return unreadable();
        RecordCursor cursor(block->plain, offset);
        while (const auto record = cursor.next()) {
            if (!entry_.consume(*record)) return unreadable();
            if (!entry_.isComplete()) continue;
            scanned_ += cursor.offset() - offset;
            return {};
        }
        if (cursor.damaged()) return unreadable();
        scanned_ += block->plain.size() - offset;
    }
}

// Two blocks for each one of the archive: a pass over the contents in their order may open each, and its leader.
bool RereadContents::isWithinLimit() const {
    const std::uint64_t maxOpened = freeBlocks + 2 * map_.end() + forwarder_.delivered() / bytesForBlock;
    return blocks_.opened() <= maxOpened && scanned_ <= maxOpened * blockSize + reads_ * freeBytesForRead;
}

}  // namespace tarnwick::qvx
