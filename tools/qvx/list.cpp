// qvx list
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "entry_selection.h"
#include "listing.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

struct ListOptions : ArchivesOptions {
    bool json = false;
    bool full = false;
    bool salvage = false;
    std::vector<std::string> include;
};

// How the entries of one archive are printed.
struct Format {
    std::string prefix;   // of each line
    std::string archive;  // the member of that name; empty for none
    bool json = false;

    [[nodiscard]] bool print(std::uint64_t number, const IndexEntry& entry) const {
        return std::puts((json ? indexJson(archive, number, entry) : prefix + listingLine(entry)).c_str()) >= 0;
    }
};

// Prints entries without an index.
class ListingSink : public EntrySink {
public:
    explicit ListingSink(Format format) : format_(std::move(format)) {}

    bool begin(const EntryHead& head) override {
        head_ = head;
        size_ = 0;
        return true;
    }
    bool data(Bytes bytes) override { return hole(bytes.size()); }
    bool hole(std::uint64_t length) override {
        size_ += length;
        return true;
    }
    bool finish(const EntryTail& tail, const ContentReader&) override {
        return format_.print(head_.number, indexEntry(head_, tail, size_));
    }
    void abandon() override {}

private:
    Format format_;
    EntryHead head_;
    std::uint64_t size_ = 0;
};

ReadOutcome listIndex(ArchiveReader& reader, EntrySelection& selection, const Format& format) {
    const auto print = [&](std::uint64_t number, const IndexEntry& entry) {
        return !selection.contains(entry.path) || format.print(number, entry);
    };
    if (auto listed = reader.list(print); !listed) return listed.error();
    return {};
}

ReadOutcome readEntries(const ListOptions& options, ArchiveReader& reader, const std::string& archive,
                        EntrySelection& selection, EntrySink& sink, bool& intact) {
    if (!options.salvage) return readSelected(reader, selection, sink);
    return salvageSelected(reader, selection, sink, [&](const ReadFault& fault) {
        report(archiveError(archive, fault));
        intact = false;
    });
}

CommandResult listOne(const ListOptions& options, EVP_PKEY* key, const std::string& archive,
                      const std::string& prefix) {
    using Opening = ArchiveReader::Opening;
    EntrySelection selection(options.include, true);
    const bool inOrder = options.full && !options.salvage;
    const auto reader = openArchive(archive, key, options.salvage ? Opening::salvage : Opening::intact,
                                    inOrder ? Access::inOrder : Access::anywhere);
    if (!reader) return reader.error();
    const Format format{prefix, prefix.empty() ? "" : archiveName(archive), options.json};
    ReadOutcome outcome;
    bool intact = true;
    if (options.full) {
        // The index does not have all that this prints, so the entries are read, and checked on the way.
        JsonSink sink(format.archive);
        outcome = readEntries(options, **reader, archive, selection, sink, intact);
        if (const Status printed = sink.finishLines(); !printed) return CommandError{printed.error()};
    } else if (options.salvage) {
        ListingSink sink(format);
        outcome = readEntries(options, **reader, archive, selection, sink, intact);
    } else {
        outcome = listIndex(**reader, selection, format);
    }
    const auto result = finishOutput(archive, outcome);
    const auto missing = [&](const std::string& pattern) -> Error {
        const char* text = options.salvage ? ": no intact entry matches" : ": not in the archive";
        return {escapedName(pattern) + text, 0, archiveName(archive)};
    };
    return result && !(selection.allMatched(missing) && intact) ? exitFailed : result;
}

CommandResult runList(const ListOptions& options) {
    shareTerminal();
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    return forEachArchive(options.archives, [&](const auto& archive, const auto& prefix) {
        return listOne(options, key->get(), archive, prefix);
    });
}

}  // namespace

CommandRun declareList(CommandOptions& command) {
    const auto options = std::make_shared<ListOptions>();
    command.addFlag("--json", options->json, "print one JSON object an entry");
    command.addFlag("--full", options->full, "the same with everything but the content; reads the whole archive");
    command.addFlag("--salvage", options->salvage, "list the intact entries of a damaged archive, without its index");
    command.addRepeatable("--include", options->include,
                          "only this entry, with all below it, or a glob; may be repeated");
    declareKey(command, options->key);
    declareProgress(command);
    declareArchives(command, options->archives);
    return [options] { return runList(*options); };
}

}  // namespace tarnwick::qvx
