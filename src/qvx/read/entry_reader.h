// Joins records to entries and checks each entry against its size and its digest.
#pragma once

#include <functional>
#include <string>

#include "qvx/format/content_digest.h"
#include "qvx/format/entry_codec.h"
#include "qvx/read/read_outcome.h"

namespace tarnwick::qvx {

// Receives entries. After begin() come data() and hole() in the order of the content, then finish() or abandon(). A
// result of false ends the reading; an abandon() may follow.
class EntrySink {
public:
    // Reads the content from the earlier entry that contains it. Passes it to another sink, by data() and hole() only.
    // Fails when it cannot be read or does not match its size or digest, and when that sink stops it.
    using ContentReader = std::function<Status(EntrySink&)>;

    virtual ~EntrySink() = default;
    virtual bool begin(const EntryHead& head) = 0;
    virtual bool data(Bytes bytes) = 0;
    virtual bool hole(std::uint64_t length) = 0;  // zero bytes, `length` of them

    // The entry is complete, and what was passed is its content. If tail.contentOf is set, nothing was passed, and
    // `content` reads the content. What is known about it is in tail.content.
    virtual bool finish(const EntryTail& tail, const ContentReader& content) = 0;

    // The entry cannot be completed.
    virtual void abandon() = 0;
};

// Joins the parts of a record that is split over blocks.
class RecordJoiner {
public:
    enum class State { partial, complete, damaged };

    // The payload may have at most `limit` bytes. When the result is `complete`, payload() is valid until the next
    // call.
    State add(const Record& record, std::size_t limit);
    [[nodiscard]] Bytes payload() const { return payload_; }
    [[nodiscard]] bool joining() const { return joining_; }
    void reset() { joining_ = false; }

private:
    std::vector<std::uint8_t> joined_;
    Bytes payload_;
    RecordType type_ = RecordType::pad;
    bool joining_ = false;
};

class EntryReader {
public:
    // Only a reader of every entry, in the order in which they are stored, knows the sum of all zeros. Others accept
    // that an entry with holes has no digest, although it announces one; and they check no more zeros than the format
    // allows for a whole archive. A reader that reads entries repeatedly may exceed that where the writer did not. A
    // search computes no digests: the seals of the blocks show that nothing was changed.
    enum class Scope { repeatedEntries, someEntries, everyEntry, withoutDigests };
    explicit EntryReader(EntrySink& sink, Scope scope = Scope::someEntries) : sink_(sink), scope_(scope) {}

    // Reads an ENTRY, DATA, HOLE or END record. If isComplete() is true afterwards, call deliver() or abandon() next.
    // If the entry is damaged, it is already abandoned when this returns. The fault names no block.
    ReadOutcome consume(const Record& record);

    // The END record has been read: head() and tail() describe the entry.
    [[nodiscard]] bool isComplete() const { return complete_; }

    // Sets tail().content, of an entry whose content is in another one.
    void adopt(const ContentCheck& content) { tail_.content = content; }

    // Calls finish() of the sink.
    ReadOutcome deliver(const EntrySink::ContentReader& content);

    [[nodiscard]] bool inEntry() const { return inEntry_; }
    [[nodiscard]] const EntryHead& head() const { return head_; }
    [[nodiscard]] const EntryTail& tail() const { return tail_; }  // of a file: with totals, stored or counted
    [[nodiscard]] std::uint64_t size() const;  // bytes of the content, even if an earlier entry contains it

    // An error with the text; its subject is the entry that was begun, if any.
    [[nodiscard]] Error error(std::string text) const;

    // Abandons the entry that was begun, if any.
    void abandon();

private:
    ReadOutcome begin(const Record& record);
    ReadOutcome addData(Bytes bytes);
    ReadOutcome addHole(Bytes payload);
    ReadOutcome finish(Bytes payload);
    ReadOutcome damaged(std::string text);
    [[nodiscard]] bool computesDigest() const { return head_.digestAnnounced && scope_ != Scope::withoutDigests; }
    Status checkTail();
    Status checkReference() const;
    Status checkContent();
    Status checkDigest();
    [[nodiscard]] bool unreadableFits() const;
    [[nodiscard]] bool isTargetPart(Bytes bytes) const;

    EntrySink& sink_;
    const Scope scope_;
    EntryHead head_;
    EntryTail tail_;
    RecordJoiner joiner_;
    ContentDigest digest_;
    DigestedZeros digestedZeros_;
    std::optional<Digest> precomputed_;  // of the content, if the record came with its digest
    std::uint64_t size_ = 0;
    std::uint64_t holes_ = 0;
    std::uint64_t zeros_ = 0;  // bytes in the holes
    bool digested_ = false;    // the digest is announced, and the zeros are within their limit
    bool inEntry_ = false;
    bool complete_ = false;
};

}  // namespace tarnwick::qvx
