// qvx list
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "listing.h"

namespace tarnwick::qvx {

namespace {

struct ListOptions : ArchiveOptions {
    bool json = false;
};

ReadOutcome listIndex(ArchiveReader& reader) {
    const auto print = [](std::uint64_t, const IndexEntry& entry) {
        return std::puts(listingLine(entry).c_str()) >= 0;
    };
    if (auto listed = reader.list(print); !listed) return listed.error();
    return {};
}

CommandResult runList(const ListOptions& options) {
    const auto reader = openArchive(options);
    if (!reader) return reader.error();
    if (!options.json) return finishOutput(options.archive, listIndex(**reader));
    // The index does not have all that this prints, so the whole archive is read, and checked on the way.
    JsonSink sink;
    const auto outcome = (*reader)->readAll(sink);
    if (const Status printed = sink.finishLines(); !printed) return CommandError{printed.error()};
    return finishOutput(options.archive, outcome);
}

}  // namespace

CommandRun declareList(CommandOptions& command) {
    const auto options = std::make_shared<ListOptions>();
    command.addFlag("--json", options->json, "one JSON object an entry, with everything but the content");
    declareKeyAndArchive(command, *options);
    return [options] { return runList(*options); };
}

}  // namespace tarnwick::qvx
