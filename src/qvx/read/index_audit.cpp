#include "qvx/read/index_audit.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

std::int64_t wholeSeconds(std::int64_t nanoseconds) {
    return nanoseconds / nanosecondsPerSecond - (nanoseconds % nanosecondsPerSecond < 0 ? 1 : 0);
}

bool same(const IndexEntry& a, const IndexEntry& b) {
    return a.block == b.block && a.offset == b.offset && a.type == b.type && a.path == b.path && a.mode == b.mode &&
           a.userId == b.userId && a.groupId == b.groupId && a.size == b.size &&
           a.modifiedSeconds == b.modifiedSeconds && a.incomplete == b.incomplete;
}

// Decoded before they are compared: another writer may encode a path with a shorter shared prefix.
bool sameEntries(Bytes one, Bytes other) {
    IndexPartDecoder a(one);
    IndexPartDecoder b(other);
    if (a.first() != b.first() || a.count() != b.count()) return false;
    for (std::uint64_t i = 0; i < a.count(); ++i) {
        const IndexEntry* left = a.next();
        const IndexEntry* right = b.next();
        if (!left || !right || !same(*left, *right)) return false;
    }
    return !a.next() && !b.next() && !a.damaged() && !b.damaged();
}

Error mismatch(const char* text) { return {text}; }

}  // namespace

Status IndexAudit::addEntry(const EntryPlace& place, const EntryReader& entry) {
    const auto& head = entry.head();
    pending_.add({place.block, place.offset, head.type, head.path, head.mode.value_or(0), head.userId.value_or(0),
                  head.groupId.value_or(0), entry.size(), wholeSeconds(head.modified.value_or(0)),
                  entry.tail().unreadable.has_value()});
    ++entries_;
    // The length of a part is limited, so no part that is still to come could cover all these entries.
    if (pending_.size() > maxIndexLength) return entry.error("the index leaves out entries");
    return {};
}

// The expected part is encoded from the entries that were read, so every field is compared.
Status IndexAudit::checkPart(Bytes payload, const EntryPlace& place) {
    if (entries_ == covered_) return mismatch("a part of the index covers no entry");
    std::vector<std::uint8_t> expected;
    pending_.finish(expected);
    parts_.push_back({covered_, place.block, place.offset});
    covered_ = entries_;
    if (!sameEntries(expected, payload)) return mismatch("a part of the index does not match the entries");
    return {};
}

Status IndexAudit::checkRoot(Bytes payload, std::uint64_t block) {
    rootBlock_ = block;
    const auto root = decodeRoot(payload);
    if (!root || covered_ != entries_ || root->entries != entries_)
        return mismatch("the root does not match the entries");
    const auto samePart = [](const IndexPartPlace& a, const IndexPartPlace& b) {
        return a.first == b.first && a.block == b.block && a.offset == b.offset;
    };
    if (!std::equal(root->parts.begin(), root->parts.end(), parts_.begin(), parts_.end(), samePart))
        return mismatch("the root does not match the index");
    const auto sameLength = [](std::uint32_t length, const CheckedBlock& checked) {
        return length == checked.sealedLength;
    };
    // Only the blocks before the root: it cannot state the lengths of its own blocks. In range, because the sequence
    // numbers of the blocks read so far have no gap.
    const auto end = blocks_.begin() + static_cast<std::ptrdiff_t>(block);
    if (!std::equal(root->sealedLengths.begin(), root->sealedLengths.end(), blocks_.begin(), end, sameLength))
        return mismatch("the root does not match the blocks");
    return {};
}

Status IndexAudit::checkTrailer(Bytes payload) {
    const auto trailer = decodeTrailer(payload);
    const bool matches = trailer && trailer->rootSequence == rootBlock_ &&
                         trailer->rootPosition == blocks_[rootBlock_].place.position - blocks_[0].place.position &&
                         trailer->entries == entries_ && trailer->blocks == blocks_.size();
    if (!matches) return mismatch("the trailer does not match the archive");
    return {};
}

}  // namespace tarnwick::qvx
