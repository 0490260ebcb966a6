// qvx extract
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "byte_size.h"
#include "cat.h"
#include "commands.h"
#include "entry_selection.h"
#include "interruption.h"
#include "progress.h"

#include "qvx/extract/disk_sink.h"
#include "qvx/extract/entry_places.h"
#include "qvx/read/incomplete_text.h"

namespace tarnwick::qvx {

namespace {

struct ExtractionOptions : ArchiveOptions {
    std::string directory = ".";
    std::vector<std::string> paths;  // empty for all entries
    bool salvage = false;
    bool preserve = false;
    bool force = false;
    bool toOutput = false;
    bool dryRun = false;
    std::uint32_t strip = 0;                     // components of each path
    std::string limit = "18446744073709551615";  // SIZE; more than any archive can write
};

// Each of these returns whether everything that was asked for could be read, and reports what could not.

struct CheckOnly : EntrySink {
    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes) override { return true; }
    bool hole(std::uint64_t) override { return true; }
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}
};

// All entries were saved, but the archive may contradict itself, which only a reader from front to back finds.
bool isSound(const ExtractionOptions& options, ArchiveReader& reader) {
    CheckOnly sink;
    const auto outcome = reader.readAll(sink);
    if (outcome.fault()) report(archiveError(options.archive, *outcome.fault()));
    return static_cast<bool>(outcome);
}

// Prints the path of each entry that is read completely, and reports the others as extraction does.
class PathSink : public CheckOnly {
public:
    bool begin(const EntryHead& head) override {
        head_ = head;
        return true;
    }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        if (tail.unreadable) fail(incompleteText(head_.type, tail));
        if (const Status read = readContent(tail, content); !read) return fail(read.error().text), true;
        return head_.path.empty() || std::puts(escapedName(head_.path).c_str()) >= 0;
    }
    [[nodiscard]] bool failed() const { return failed_; }

private:
    // An entry may have the content of one that was not chosen.
    Status readContent(const EntryTail& tail, const ContentReader& content) {
        const std::uint64_t number = tail.contentOf.value_or(head_.number);
        if (read_.find(number)) return {};
        CheckOnly check;
        Status read = tail.contentOf ? content(check) : Status();
        if (read) read_.add(number, 0);
        return read;
    }

    void fail(const std::string& text) {
        report(Error{text, 0, entryName(head_.path)});
        failed_ = true;
    }

    EntryHead head_;
    EntryPlaces read_;  // the entries with the contents that were read; the places do not matter
    bool failed_ = false;
};

// The path without its first components; none if it has no more.
std::optional<std::string> stripComponents(std::string_view path, std::uint32_t count) {
    for (; count > 0; --count) {
        const auto end = path.find('/');
        if (end == std::string_view::npos) return std::nullopt;
        path.remove_prefix(end + 1);
    }
    return std::string(path);
}

bool salvageEntries(const ExtractionOptions& options, ArchiveReader& reader, EntrySink& sink) {
    bool intact = true;
    const auto reportFault = [&](const ReadFault& fault) {
        report(archiveError(options.archive, fault));
        intact = false;
    };
    EntrySelection selection(options.paths);
    if (!salvageSelected(reader, selection, sink, reportFault)) return false;
    if (!selection.allMatched(noIntactEntry) || !intact) return false;
    return !selection.isAll() || isSound(options, reader);
}

// Whether the reading is complete.
bool reportDamage(const ExtractionOptions& options, const ReadOutcome& outcome) {
    if (outcome.fault()) {
        report(archiveError(options.archive, *outcome.fault()));
        if (options.archive != "-")
            reportHint("extraction ended there; --salvage extracts the intact files of a damaged archive");
    }
    return static_cast<bool>(outcome);
}

bool extractEntries(const ExtractionOptions& options, ArchiveReader& reader, EntrySink& sink) {
    RenamingSink stripped(sink, [&](const std::string& path) {
        auto rest = stripComponents(path, options.strip);
        if (rest && !options.dryRun) reportEntry(*rest);
        return rest;
    });
    EntrySink* const target = options.strip > 0 || isVerbose() ? &stripped : &sink;
    if (options.salvage) return salvageEntries(options, reader, *target);
    EntrySelection selection(options.paths);
    return reportDamage(options, readSelected(reader, selection, *target)) && selection.allMatched();
}

void reportLeftOut(const DiskSink& sink) {
    const std::string kinds = sink.leftOut();
    if (!kinds.empty()) reportHint("not restored: " + kinds + "; --preserve restores them, for root only");
}

CommandResult extractToDisk(const ExtractionOptions& options, ArchiveReader& reader, int directory,
                            std::optional<std::uint64_t> limit) {
    watchForInterruption();
    DiskSink sink(directory, {.keepIncomplete = options.salvage,
                              .preserve = options.preserve,
                              .limit = limit,
                              .fillsDisk = options.force,
                              .report = [](const Error& problem) { report(problem); },
                              .interrupted = interrupted});
    const bool complete = extractEntries(options, reader, sink);
    sink.finishDirectories();
    reportLeftOut(sink);
    return complete && !sink.failed() ? exitSuccess : exitFailed;
}

CommandResult printPaths(const ExtractionOptions& options, ArchiveReader& reader) {
    PathSink sink;
    const bool complete = extractEntries(options, reader, sink);
    const auto result = finishOutput(options.archive, {});
    return (complete && !sink.failed()) || !result ? result : exitFailed;
}

CommandResult runExtract(const ExtractionOptions& options) {
    if (options.toOutput)
        return writeContents(options, options.paths.empty() ? std::vector<std::string>{"*"} : options.paths);
    const auto limit = parseSize(options.limit);
    if (!limit) return CommandError{{"not a number of bytes, with K, M, G or T", 0, options.limit}, exitUsage};
    if (options.preserve && geteuid() != 0) return CommandError{{"only root can use --preserve"}};
    const FileDescriptor directory(open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory && !options.dryRun) return CommandError{systemError(errno, options.directory)};
    if (options.dryRun) shareTerminal();
    using Opening = ArchiveReader::Opening;
    const auto reader = openArchive(options, options.salvage ? Opening::salvage : Opening::intact,
                                    options.salvage ? Access::anywhere : Access::inOrder);
    if (!reader) return reader.error();
    if (options.dryRun) return printPaths(options, **reader);
    return extractToDisk(options, **reader, directory.get(), limit);
}

}  // namespace

CommandRun declareExtract(CommandOptions& command) {
    const auto options = std::make_shared<ExtractionOptions>();
    command.add("-C,--directory", options->directory, "where to; the working directory otherwise");
    command.addFlag("--salvage", options->salvage, "extract the intact files of a damaged archive");
    command.addFlag("--preserve", options->preserve, "restore owners, special modes, flags and all attributes");
    command.add("--limit", options->limit, "write at most so many bytes; with K, M, G or T, powers of 1024");
    command.addFlag("--force", options->force, "fill the disk");
    command.add("--strip-components", options->strip, "leave out so many components of each path");
    command.addFlag("--to-stdout", options->toOutput, "write contents to standard output, as cat does");
    command.addFlag("-n,--dry-run", options->dryRun, "print the paths that would be written, and write nothing");
    declareKeyAndArchive(command, *options);
    declareProgress(command);
    command.add("PATH", options->paths, "entries to extract, with all below them, or globs; otherwise all");
    command.exclude("--salvage", "--to-stdout");
    command.exclude("--dry-run", "--to-stdout");
    return [options] { return runExtract(*options); };
}

}  // namespace tarnwick::qvx
