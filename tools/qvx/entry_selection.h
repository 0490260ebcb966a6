// Which entries a command reads, and under which paths it uses them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "archive_access.h"
#include "path_pattern.h"
#include "qvx/archive_reader.h"

namespace tarnwick::qvx {

// The patterns of the command line, each with everything below what it matches; all entries if there is none.
class EntrySelection {
public:
    explicit EntrySelection(const std::vector<std::string>& patterns, bool anyDepth = false);

    [[nodiscard]] bool isAll() const { return patterns_.empty(); }

    // Whether the entry with this path is selected.
    bool contains(std::string_view path);

    // Whether each pattern has matched an entry. Reports those that have not; the error is about the pattern.
    using Describe = std::function<Error(const std::string& pattern)>;
    [[nodiscard]] bool allMatched(const Describe& describe = notInArchive) const;

private:
    struct Pattern {
        std::string given;
        PathPattern pattern;
        bool matched = false;
    };

    std::vector<Pattern> patterns_;
};

// Passes entries on, under another path. Those that have none are left out.
class RenamingSink : public EntrySink {
public:
    using NewPath = std::function<std::optional<std::string>(const std::string& path)>;

    RenamingSink(EntrySink& sink, NewPath newPath) : sink_(sink), newPath_(std::move(newPath)) {}

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override { return !head_ || sink_.data(bytes); }
    bool hole(std::uint64_t length) override { return !head_ || sink_.hole(length); }
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

private:
    EntrySink& sink_;
    NewPath newPath_;
    std::optional<EntryHead> head_;  // of the entry that is passed on; its address stays the same
};

// Reads all entries from the first block to the last, or only those that are selected.
ReadOutcome readSelected(ArchiveReader& reader, EntrySelection& selection, EntrySink& sink);

// For a pattern after a salvage: the archive may have had such an entry.
Error noIntactEntry(const std::string& pattern);

// ArchiveReader::salvage() for those entries. The other ones and their faults are left out.
ReadOutcome salvageSelected(ArchiveReader& reader, EntrySelection& selection, EntrySink& sink,
                            const ArchiveReader::FaultReport& report);

}  // namespace tarnwick::qvx
