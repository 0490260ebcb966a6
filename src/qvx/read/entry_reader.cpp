#include "qvx/read/entry_reader.h"

#include <algorithm>
#include <new>

#include "qvx/format/access_list.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxHolePiece = 268435456;  // bytes

}  // namespace

RecordJoiner::State RecordJoiner::add(const Record& record, std::size_t limit) {
    if (joining_ && record.type != type_) return State::damaged;
    // The common case: a record in one piece is not copied.
    if (!joining_ && !record.continues) {
        payload_ = record.payload;
        return payload_.size() <= limit ? State::complete : State::damaged;
    }
    if (!joining_) joined_.clear();
    type_ = record.type;
    // Checked before the copy, so that no input makes the buffer larger than the limit.
    if (record.payload.size() > limit - std::min(limit, joined_.size())) return State::damaged;
    joined_.insert(joined_.end(), record.payload.begin(), record.payload.end());
    joining_ = record.continues;
    payload_ = joined_;
    return joining_ ? State::partial : State::complete;
}

ReadOutcome EntryReader::consume(const Record& record) {
    if (record.type == RecordType::entry) return begin(record);
    if (!inEntry_) return damaged("a record is outside of an entry");
    if (joiner_.joining() && record.type != RecordType::end) return damaged("a split record is not continued");
    switch (record.type) {
        case RecordType::pad: return {};
        case RecordType::data: return addData(record.payload);
        case RecordType::hole: return addHole(record.payload);
        case RecordType::end: break;
        default: return damaged("the entry has no end");
    }
    switch (joiner_.add(record, maxEndLength)) {
        case RecordJoiner::State::partial: return {};
        case RecordJoiner::State::complete: return finish(joiner_.payload());
        case RecordJoiner::State::damaged: break;
    }
    return damaged("the end of the entry is malformed");
}

ReadOutcome EntryReader::deliver(const EntrySink::ContentReader& content) {
    inEntry_ = false;
    complete_ = false;
    // If the sink stops here, an abandon() that follows does not reach it: the entry is finished.
    return ReadOutcome::fromSink(sink_.finish(tail_, content));
}

std::uint64_t EntryReader::size() const { return tail_.content ? tail_.content->size : size_; }

Error EntryReader::error(std::string text) const {
    return {std::move(text), 0, inEntry_ ? entryName(head_.path) : std::string()};
}

void EntryReader::abandon() {
    if (inEntry_) sink_.abandon();
    inEntry_ = false;
    complete_ = false;
    joiner_.reset();
}

ReadOutcome EntryReader::begin(const Record& record) {
    if (inEntry_) return damaged("the entry has no end");
    auto head = decodeEntryHead(record.payload);
    if (!head) return damaged("the beginning of an entry is malformed");
    head_ = std::move(*head);
    precomputed_ = record.contentDigest;
    digested_ = computesDigest();
    if (digested_ && !precomputed_) digest_.restart();
    size_ = 0;
    holes_ = 0;
    zeros_ = 0;
    // A sink that refuses an entry does not get an abandon() for it.
    inEntry_ = sink_.begin(head_);
    return ReadOutcome::fromSink(inEntry_);
}

ReadOutcome EntryReader::addData(Bytes bytes) {
    if (head_.type == EntryType::directory) return damaged("a directory has content");
    if (bytes.empty()) return damaged("a part of the content is empty");
    // A subtraction, because a sum could overflow.
    if (bytes.size() > maxContentSize - size_) return damaged("the content is too long");
    size_ += bytes.size();
    if (head_.type == EntryType::link && !isTargetPart(bytes)) return damaged("the target of the link is malformed");
    if (digested_ && !precomputed_) digest_.add(bytes);
    return ReadOutcome::fromSink(sink_.data(bytes));
}

// The sinks keep the target in memory.
bool EntryReader::isTargetPart(Bytes bytes) const {
    return size_ <= maxTargetLength && std::ranges::find(bytes, 0) == bytes.end();
}

ReadOutcome EntryReader::addHole(Bytes payload) {
    const auto length = decodeHole(payload);
    if (!length || head_.type != EntryType::file || *length > maxContentSize - size_)
        return damaged("a hole is malformed");
    size_ += *length;
    zeros_ += *length;
    ++holes_;
    if (computesDigest()) digested_ = digestedZeros_.add(*length);
    if (!digested_) return ReadOutcome::fromSink(sink_.hole(*length));
    // In pieces, so that the sink can stop a long hole early.
    for (std::uint64_t left = *length, piece = 0; left > 0; left -= piece) {
        piece = std::min(left, maxHolePiece);
        if (!sink_.hole(piece)) return ReadOutcome::stopped();
        digest_.addZeros(piece);
    }
    return {};
}

ReadOutcome EntryReader::finish(Bytes payload) {
    auto tail = decodeEntryTail(payload);
    if (!tail) return damaged("the end of the entry is malformed");
    tail_ = std::move(*tail);
    if (const Status checked = checkTail(); !checked) return damaged(checked.error().text);
    if (head_.type == EntryType::file && !tail_.contentOf) tail_.totals = SparseTotals{size_, holes_};
    complete_ = true;
    return {};
}

// Unreadable extents are stored as holes. The reader does not remember where the holes are, so it compares only the
// total lengths.
bool EntryReader::unreadableFits() const {
    if (!tail_.unreadable || tail_.unreadable->empty()) return true;
    std::uint64_t total = 0;
    for (const Extent& extent : *tail_.unreadable) total += extent.length;
    return head_.type == EntryType::file && tail_.unreadable->back().end() <= size_ && total <= zeros_;
}

Status EntryReader::checkTail() {
    if (tail_.accessLists && !areListsOf(head_.type, *tail_.accessLists))
        return error("the entry has an access list that its type cannot have");
    return tail_.contentOf ? checkReference() : checkContent();
}

// The caller knows whether the entry that is named has content, and where it is.
Status EntryReader::checkReference() const {
    const bool other = *tail_.contentOf != head_.number;
    if (head_.type == EntryType::file && other && size_ == 0 && !head_.digestAnnounced) return {};
    return error("the reference to the entry's content is malformed");
}

Status EntryReader::checkContent() {
    if (!unreadableFits()) return error("the unreadable extents do not fit the content");
    if (tail_.totals && head_.type != EntryType::file) return error("the entry has fields that do not go together");
    if (!tail_.totals && holes_ > 0) return error("the size is missing");
    if (tail_.totals && (tail_.totals->size != size_ || tail_.totals->holes != holes_))
        return error("the size does not match");
    if (head_.type == EntryType::link && size_ == 0 && !tail_.unreadable) return error("the link has no target");
    return checkDigest();
}

Status EntryReader::checkDigest() {
    if (scope_ == Scope::withoutDigests) return {};
    const bool certain = scope_ == Scope::everyEntry || !head_.digestAnnounced || holes_ == 0;
    if (certain && digested_ != tail_.digest.has_value())
        return error(digested_ ? "the digest is missing" : "the entry has a digest, but must not have one");
    const bool mayHaveDigest = digested_ || (scope_ == Scope::repeatedEntries && zeros_ <= maxDigestedZeros);
    if (tail_.digest && !mayHaveDigest) return error("the entry has a digest, but must not have one");
    if (tail_.digest && digested_ && *tail_.digest != (precomputed_ ? *precomputed_ : digest_.finish()))
        return error("the digest does not match");
    return {};
}

ReadOutcome EntryReader::damaged(std::string text) {
    ReadFault fault{error(std::move(text))};
    abandon();
    return fault;
}

}  // namespace tarnwick::qvx
