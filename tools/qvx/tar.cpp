// qvx tar
#include "tar_sink.h"

#include <unistd.h>

#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "entry_selection.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

struct TarOptions : ArchiveOptions {
    std::vector<std::string> patterns;
};

Status endStream(TarSink& sink, const ReadOutcome& outcome) {
    if (outcome) return sink.close();
    sink.cut();
    return sink.status();
}

CommandResult runTar(const TarOptions& options) {
    if (isatty(STDOUT_FILENO) == 1)
        return CommandError{{"a tar stream is not for a terminal; send it to a file or a program, as in | tar t"},
                            exitUsage};
    EntrySelection selection(options.patterns);
    const auto reader = openArchive(options, ArchiveReader::Opening::intact, Access::inOrder);
    if (!reader) return reader.error();
    TarSink sink;
    RenamingSink reported(sink, [](const std::string& path) { return reportEntry(path), std::optional(path); });
    EntrySink* const target = isVerbose() ? &reported : static_cast<EntrySink*>(&sink);
    const auto outcome = readSelected(**reader, selection, *target);
    const Status ended = endStream(sink, outcome);
    if (outcome.fault()) {
        report(archiveError(options.archive, *outcome.fault()));
        if (options.archive != "-")
            reportHint("the tar stream was cut there; extract --salvage saves the intact files of a damaged archive");
    }
    auto result = finishOutput(options.archive, outcome.isStopped() ? outcome : ReadOutcome());
    if (!result) return result;
    if (!ended) return archiveError(options.archive, ReadFault{ended.error()});
    return outcome && selection.allMatched() && !sink.incomplete() ? exitSuccess : exitFailed;
}

}  // namespace

CommandRun declareTar(CommandOptions& command) {
    const auto options = std::make_shared<TarOptions>();
    declareKeyAndArchive(command, *options);
    declareProgress(command);
    command.add("PATH", options->patterns, "entries to write, with all below them, or globs; otherwise all");
    return [options] { return runTar(*options); };
}

}  // namespace tarnwick::qvx
