// Prints archives: lines for people, JSON for programs, and the plain content of one file.
#pragma once

#include <string>

#include "json_object.h"
#include "ordered_lines.h"
#include "qvx/archive_reader.h"

namespace tarnwick::qvx {

// "-rw-r----- 0/4 1234 2026-01-31T12:00:00Z var/log/syslog"; a "!" after the mode marks an incomplete entry.
std::string listingLine(const IndexEntry& entry);

// What the index says about an entry, whose own content has `length` bytes.
IndexEntry indexEntry(const EntryHead& head, const EntryTail& tail, std::uint64_t length);

// Adds what the index has about an entry, except the number and the path.
void addIndexValues(JsonObject& object, const IndexEntry& entry);

// The same as one JSON object. `archive` is its member of that name; empty for none.
std::string indexJson(const std::string& archive, std::uint64_t number, const IndexEntry& entry);

std::string timeText(std::int64_t seconds);  // "2026-01-31T12:00:00Z"
std::string octalText(unsigned mode);        // "0644"
const char* typeName(EntryType type);        // "file", "directory" or "link"

// Prints each entry as one JSON object on one line, by number, with everything that the archive contains about it
// except the content.
class JsonSink : public EntrySink {
public:
    // `archive` is the member of that name; empty for none.
    explicit JsonSink(std::string archive) : archive_(std::move(archive)) {}

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}

    // Call it at the end, also after damage.
    Status finishLines();

private:
    std::string archive_;
    EntryHead head_;
    std::string linkTarget_;
    OrderedLines lines_;
};

// Writes the content of its files to standard output. Stops when that fails. Reports incomplete files.
class OutputSink : public EntrySink {
public:
    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}
    [[nodiscard]] bool incomplete() const { return incomplete_; }  // one of the files was incomplete

private:
    std::string path_;
    bool incomplete_ = false;
};

// For a check only: reports each incomplete entry once, also when the archive is read a second time.
class CheckSink : public EntrySink {
public:
    explicit CheckSink(std::string archive) : archive_(std::move(archive)) {}
    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override { return hole(bytes.size()); }
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}
    [[nodiscard]] std::uint64_t intact() const { return finished_; }        // count of entries, in this reading
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }            // of their contents
    [[nodiscard]] std::uint64_t incomplete() const { return incomplete_; }  // count of entries

    // The archive is read again: the entries that were read so far come again first.
    void startAgain();

private:
    std::string archive_;  // its name in messages
    EntryHead head_;
    std::uint64_t length_ = 0;  // of the content of this entry so far
    std::uint64_t bytes_ = 0;
    std::uint64_t finished_ = 0;
    std::uint64_t known_ = 0;  // count of the first entries that are reported already
    std::uint64_t incomplete_ = 0;
};

}  // namespace tarnwick::qvx
