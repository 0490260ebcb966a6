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

CommandResult verifyOne(EVP_PKEY* key, const std::string& archive) {
    const auto reader = openArchive(archive, key);
    if (!reader) return reader.error();
    CheckSink sink(escapedName(archive));
    const auto outcome = (*reader)->readAll(sink);
    if (const ReadFault* fault = outcome.fault()) {
        const auto first = archiveError(archive, *fault);
        report(first);
        reportOtherDamage(archive, **reader, first, sink);
        return exitFailed;
    }
    if (sink.incomplete() > 0)
        report(escapedName(archive) +
               ": intact; entries incomplete when they were captured: " + std::to_string(sink.incomplete()));
    return exitSuccess;
}

CommandResult runVerify(const ArchivesOptions& options) {
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    return forEachArchive(options.archives,
                          [&](const auto& archive, const auto&) { return verifyOne(key->get(), archive); });
}

}  // namespace

CommandRun declareVerify(CommandOptions& command) {
    const auto options = std::make_shared<ArchivesOptions>();
    declareKey(command, options->key);
    declareArchives(command, options->archives);
    return [options] { return runVerify(*options); };
}

}  // namespace tarnwick::qvx
