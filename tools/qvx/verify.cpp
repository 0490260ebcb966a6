// qvx verify
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "listing.h"

namespace tarnwick::qvx {

namespace {

// After the first damage, everything that can be found out about the rest. Salvage meets the first damage again.
void reportOtherDamage(const std::string& archive, ArchiveReader& reader, const CommandError& first, CheckSink& sink) {
    const auto reportFault = [&](const ReadFault& fault) {
        const auto error = archiveError(archive, fault);
        if (error.text != first.text) report(error);
    };
    sink.startAgain();
    static_cast<void>(reader.salvage(sink, reportFault));  // the sink never stops it
}

CommandResult runVerify(const ArchiveOptions& options) {
    const auto reader = openArchive(options);
    if (!reader) return reader.error();
    CheckSink sink(escapedName(options.archive));
    const auto outcome = (*reader)->readAll(sink);
    if (const ReadFault* fault = outcome.fault()) {
        const auto first = archiveError(options.archive, *fault);
        report(first);
        reportOtherDamage(options.archive, **reader, first, sink);
        return exitFailed;
    }
    if (sink.incomplete() > 0)
        report(escapedName(options.archive) +
               ": intact; entries incomplete when they were captured: " + std::to_string(sink.incomplete()));
    return exitSuccess;
}

}  // namespace

CommandRun declareVerify(CommandOptions& command) {
    const auto options = std::make_shared<ArchiveOptions>();
    declareKeyAndArchive(command, *options);
    return [options] { return runVerify(*options); };
}

}  // namespace tarnwick::qvx
