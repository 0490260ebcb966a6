// qvx extract
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "archive_access.h"
#include "byte_size.h"
#include "commands.h"
#include "entry_selection.h"
#include "interruption.h"

#include "qvx/extract/disk_sink.h"

namespace tarnwick::qvx {

namespace {

struct ExtractionOptions : ArchiveOptions {
    std::string directory = ".";
    std::vector<std::string> paths;  // empty for all entries
    bool salvage = false;
    bool preserve = false;
    bool force = false;
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

bool salvageAll(const ExtractionOptions& options, ArchiveReader& reader, DiskSink& sink) {
    bool intact = true;
    const auto reportFault = [&](const ReadFault& fault) {
        report(archiveError(options.archive, fault));
        intact = false;
    };
    return reader.salvage(sink, reportFault) && intact && isSound(options, reader);
}

// Whether the reading is complete.
bool reportDamage(const ExtractionOptions& options, const ReadOutcome& outcome) {
    if (outcome.fault()) {
        report(archiveError(options.archive, *outcome.fault()));
        report("extraction ended there; --salvage extracts the intact files of a damaged archive");
    }
    return static_cast<bool>(outcome);
}

bool extractChosen(const ExtractionOptions& options, ArchiveReader& reader, DiskSink& sink) {
    EntrySelection selection(options.paths);
    return reportDamage(options, readSelected(reader, selection, sink)) && selection.allMatched();
}

bool extractEntries(const ExtractionOptions& options, ArchiveReader& reader, DiskSink& sink) {
    if (options.salvage) return salvageAll(options, reader, sink);
    return extractChosen(options, reader, sink);
}

void reportLeftOut(const DiskSink& sink) {
    const std::string kinds = sink.leftOut();
    if (!kinds.empty()) report("not restored: " + kinds + "; --preserve restores them, for root only");
}

CommandResult runExtract(const ExtractionOptions& options) {
    const auto limit = parseSize(options.limit);
    if (!limit) return CommandError{{"not a number of bytes, with K, M, G or T", 0, options.limit}, exitUsage};
    if (options.preserve && geteuid() != 0) return CommandError{{"only root can use --preserve"}};
    const FileDescriptor directory(open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return CommandError{systemError(errno, options.directory)};
    using Opening = ArchiveReader::Opening;
    const bool inOrder = !options.salvage && options.paths.empty();
    const auto reader = openArchive(options, options.salvage ? Opening::salvage : Opening::intact,
                                    inOrder ? Access::inOrder : Access::anywhere);
    if (!reader) return reader.error();
    watchForInterruption();
    DiskSink sink(directory.get(), {.keepIncomplete = options.salvage,
                                    .preserve = options.preserve,
                                    .limit = limit,
                                    .fillsDisk = options.force,
                                    .report = [](const Error& problem) { report(problem); },
                                    .interrupted = interrupted});
    const bool complete = extractEntries(options, **reader, sink);
    sink.finishDirectories();
    reportLeftOut(sink);
    return complete && !sink.failed() ? exitSuccess : exitFailed;
}

}  // namespace

CommandRun declareExtract(CommandOptions& command) {
    const auto options = std::make_shared<ExtractionOptions>();
    command.add("-C,--directory", options->directory, "where to; the working directory otherwise");
    command.addFlag("--salvage", options->salvage, "extract the intact files of a damaged archive");
    command.addFlag("--preserve", options->preserve, "restore owners, special modes, flags and all attributes");
    command.add("--limit", options->limit, "write at most so many bytes; with K, M, G or T, powers of 1024");
    command.addFlag("--force", options->force, "fill the disk");
    declareKeyAndArchive(command, *options);
    command.add("PATH", options->paths, "entries to extract, with all below them; otherwise all");
    command.exclude("--salvage", "PATH");
    return [options] { return runExtract(*options); };
}

}  // namespace tarnwick::qvx
