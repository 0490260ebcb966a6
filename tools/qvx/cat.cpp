// qvx cat
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "listing.h"
#include "path_pattern.h"

namespace tarnwick::qvx {

namespace {

struct CatOptions : ArchiveOptions {
    std::string path;
};

CommandResult runCat(const CatOptions& options) {
    const auto reader = openArchive(options);
    if (!reader) return reader.error();
    std::optional<std::uint64_t> last;  // of several entries with one path, the last one is used
    const std::string path = entryPath(options.path);
    const auto findLast = [&](std::uint64_t number, const IndexEntry& entry) {
        if (entry.path == path) last = number;
        return true;
    };
    if (auto listed = (*reader)->list(findLast); !listed) return archiveError(options.archive, listed.error());
    if (!last) return CommandError{notInArchive(options.path)};
    OutputSink sink;
    // The index and the entry may disagree.
    const auto chosen = [&](std::uint64_t number, std::string_view at) { return number == *last && at == path; };
    auto result = finishOutput(options.archive, (*reader)->readChosen(chosen, sink));
    if (result && sink.incomplete()) return exitFailed;
    return result;
}

}  // namespace

CommandRun declareCat(CommandOptions& command) {
    const auto options = std::make_shared<CatOptions>();
    declareKeyAndArchive(command, *options);
    command.addRequired("PATH", options->path, "the file");
    return [options] { return runCat(*options); };
}

}  // namespace tarnwick::qvx
