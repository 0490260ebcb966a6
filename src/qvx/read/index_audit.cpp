#include "qvx/read/index_audit.h"

namespace tarnwick::qvx {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

std::int64_t wholeSeconds(std::int64_t nanoseconds) {
    return nanoseconds / nanosecondsPerSecond - (nanoseconds % nanosecondsPerSecond < 0 ? 1 : 0);
}

Error mismatch(const char* text) { return {text}; }

}  // namespace

void IndexAudit::addEntry(const RecordPlace& place, std::uint64_t endBlock, const EntryReader& entry) {
    const auto& head = entry.head();
    read_.add(head.number, {place.block, place.offset, endBlock - place.block, head.type, head.path,
                            head.mode.value_or(0), head.userId.value_or(0), head.groupId.value_or(0), entry.size(),
                            wholeSeconds(head.modified.value_or(0)), entry.tail().unreadable.has_value()});
    ++entries_;
}

Status IndexAudit::checkPart(Bytes payload, const RecordPlace& place) {
    if (!parts_.empty() && covered_ - parts_.back().first < minIndexPartEntries)
        return mismatch("a part of the index covers too few entries");
    IndexPartDecoder decoder(payload);
    if (decoder.damaged()) return mismatch("a part of the index is malformed");
    if (decoder.first() != covered_) return mismatch("a part of the index does not continue the one before it");
    parts_.push_back({static_cast<std::uint32_t>(covered_), place.block, place.offset});
    covered_ += decoder.count();
    return checkEntries(decoder, place);
}

Status IndexAudit::checkEntries(IndexPartDecoder& decoder, const RecordPlace& part) {
    std::uint64_t number = decoder.first();
    while (const IndexEntry* entry = decoder.next()) {
        if (!isBefore(*entry, part)) return mismatch("a part of the index is before an entry that it covers");
        indexed_.add(number++, *entry);
    }
    if (decoder.damaged()) return mismatch("a part of the index is malformed");
    return {};
}

Status IndexAudit::checkRoot(Bytes payload, std::uint64_t block) {
    rootBlock_ = block;
    RootDecoder root(payload);
    if (root.entries() != entries_ || covered_ != entries_) return mismatch("the root does not match the entries");
    // Each part continues the one before it, so the index has each number once. Then the entries have each once, too.
    if (read_ != indexed_) return mismatch("the index does not agree with the entries");
    if (!matchesParts(root)) return mismatch("the root does not match the index");
    if (!matchesBlocks(root, block)) return mismatch("the root does not match the blocks");
    return {};
}

bool IndexAudit::matchesParts(RootDecoder& root) const {
    std::size_t count = 0;
    for (; const auto part = root.nextPart(); ++count)
        if (count == parts_.size() || *part != parts_[count]) return false;
    return count == parts_.size();
}

// Compares the blocks before the root. The root cannot contain the lengths of its own blocks.
bool IndexAudit::matchesBlocks(RootDecoder& root, std::uint64_t end) const {
    std::uint64_t block = 0;
    for (; const auto length = root.nextLength(); ++block) {
        // A block that was read ends where the next one begins.
        const auto place = blocks_.find(block);
        const auto next = blocks_.find(block + 1);
        if (!place || !next || next->position - place->position != blockHeaderSize + *length) return false;
    }
    return block == end && root.complete();
}

Status IndexAudit::checkTrailer(Bytes payload) const {
    const auto trailer = decodeTrailer(payload);
    const auto begin = blocks_.find(0);
    const auto root = blocks_.find(rootBlock_);
    const bool matches = trailer && begin && root && trailer->rootSequence == rootBlock_ &&
                         trailer->rootPosition == root->position - begin->position && trailer->entries == entries_ &&
                         trailer->blocks == blocks_.end();
    if (!matches) return mismatch("the trailer does not match the archive");
    return {};
}

}  // namespace tarnwick::qvx
