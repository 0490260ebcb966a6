// Archives in words: lines for people, JSON for programs, and the bare content of one file.
#pragma once

#include <string>

#include "platform/archive/archive_reader.h"

namespace tarnwick::qvx {

// "-rw-r----- 0/4 1234 2026-01-31T12:00:00Z var/log/syslog"
std::string listingLine(const IndexEntry& entry);

// Prints each entry as one JSON object on a line of its own, with all that the archive holds of it but the content.
class JsonSink : public EntrySink {
public:
    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}

private:
    EntryHead head_;
    std::string linkTarget_;
};

// Writes the content of the files it gets to standard output. Stops when that fails.
class OutputSink : public EntrySink {
public:
    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}
};

// Looks at nothing: for checking alone.
class NullSink : public EntrySink {
public:
    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes) override { return true; }
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}
};

}  // namespace tarnwick::qvx
