// qvx list
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "listing.h"

namespace tarnwick::qvx {

namespace {

struct ListOptions : ArchivesOptions {
    bool json = false;
    bool full = false;
};

ReadOutcome listIndex(ArchiveReader& reader, const std::string& prefix, const std::string& archive, bool json) {
    const auto print = [&](std::uint64_t number, const IndexEntry& entry) {
        const std::string line = json ? indexJson(archive, number, entry) : prefix + listingLine(entry);
        return std::puts(line.c_str()) >= 0;
    };
    if (auto listed = reader.list(print); !listed) return listed.error();
    return {};
}

CommandResult listOne(const ListOptions& options, EVP_PKEY* key, const std::string& archive,
                      const std::string& prefix) {
    const auto access = options.full ? Access::inOrder : Access::anywhere;
    const auto reader = openArchive(archive, key, ArchiveReader::Opening::intact, access);
    if (!reader) return reader.error();
    const std::string member = prefix.empty() ? "" : archiveName(archive);
    if (!options.full) return finishOutput(archive, listIndex(**reader, prefix, member, options.json));
    // The index does not have all that this prints, so the whole archive is read, and checked on the way.
    JsonSink sink(member);
    const auto outcome = (*reader)->readAll(sink);
    if (const Status printed = sink.finishLines(); !printed) return CommandError{printed.error()};
    return finishOutput(archive, outcome);
}

CommandResult runList(const ListOptions& options) {
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
    declareKey(command, options->key);
    declareArchives(command, options->archives);
    return [options] { return runList(*options); };
}

}  // namespace tarnwick::qvx
