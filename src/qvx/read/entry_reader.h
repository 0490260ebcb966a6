// From records to entries: puts one entry together and holds it to its sums and its digest.
#pragma once

#include <functional>
#include <string>

#include "qvx/format/content_digest.h"
#include "qvx/format/entry_codec.h"
#include "qvx/read/archive_file.h"

namespace tarnwick::qvx {

// Whoever takes entries. After begin() come data() and hole() in the order of the content, then finish() or abandon().
// An answer of false ends the reading; an abandon() may follow.
class EntrySink {
public:
    // Gives the content of the earlier entry that holds this one's to another sink, as data() and hole() only. False
    // when it cannot be read, or is not what its sums and its digest say.
    using ContentReader = std::function<bool(EntrySink&)>;

    virtual ~EntrySink() = default;
    virtual bool begin(const EntryHead& head) = 0;
    virtual bool data(Bytes bytes) = 0;
    virtual bool hole(std::uint64_t length) = 0;  // so many zero bytes

    // The entry is whole, and what was given is its content; with tail.contentOf, there was none to give, and
    // `content` reads it. Digest and sum are then those of the entry that holds it, where that one was read as well.
    virtual bool finish(const EntryTail& tail, const ContentReader& content) = 0;

    // The entry that was begun cannot be completed.
    virtual void abandon() = 0;
};

// Joins the parts of a logical record that is split over blocks.
class RecordJoiner {
public:
    enum class State { partial, whole, damaged };

    // The payload may be at most `limit` bytes long. When the record is whole, payload() is valid until the next call.
    State take(const Record& record, std::size_t limit);
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
    enum class Step {
        more,     // the entry goes on
        whole,    // head() and tail() describe it; now deliver() or abandon() it
        stopped,  // the sink wants no more
        damaged,  // what() says why; the sink was told to abandon what it had begun
    };

    explicit EntryReader(EntrySink& sink) : sink_(sink) {}

    // Takes an ENTRY, DATA, HOLE or END record.
    Step take(const Record& record);

    // Gives the tail what the entry that holds the content says of it.
    void adopt(const std::optional<Digest>& digest, const std::optional<SparseSum>& sum);

    // Tells the sink that the entry is whole; its answer.
    bool deliver(const EntrySink::ContentReader& content);

    [[nodiscard]] bool inEntry() const { return inEntry_; }
    [[nodiscard]] const EntryHead& head() const { return head_; }
    [[nodiscard]] const EntryTail& tail() const { return tail_; }  // with the sum of a file, told or counted
    [[nodiscard]] std::uint64_t size() const;  // of the content, also when an earlier entry holds it
    [[nodiscard]] const std::string& what() const { return what_; }

    // Gives up the entry that was begun, if any.
    void abandon();

private:
    Step begin(const Record& record);
    Step addData(Bytes bytes);
    Step addHole(Bytes payload);
    Step finish(Bytes payload);
    Step damaged(const char* what);
    const char* faultOfTail();
    [[nodiscard]] bool unreadableFits() const;

    EntrySink& sink_;
    EntryHead head_;
    EntryTail tail_;
    RecordJoiner joiner_;
    ContentDigest digest_;
    std::optional<Digest> known_;  // the digest, when it need not be taken
    std::uint64_t size_ = 0;
    std::uint64_t holes_ = 0;
    std::uint64_t zeros_ = 0;  // in the holes
    std::string what_;
    bool inEntry_ = false;
};

}  // namespace tarnwick::qvx
