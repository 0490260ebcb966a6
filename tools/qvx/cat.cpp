// qvx cat
#include "cat.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "listing.h"
#include "path_pattern.h"
#include "progress.h"
#include "qvx/read/keyed_hash.h"

namespace tarnwick::qvx {

namespace {

struct CatOptions : ArchiveOptions {
    std::vector<std::string> patterns;
};

// The entries that one pattern of the command line names. Memory: 16 bytes for each.
class NamedEntries {
public:
    explicit NamedEntries(const std::string& given) : pattern_(given) {}

    void add(std::uint64_t number, const IndexEntry& entry, const KeyedHash& hash) {
        const bool fits = entry.type == EntryType::file || !pattern_.isGlob();
        if (fits && pattern_.matches(entry.path)) found_.push_back({hash(entry.path), number});
    }

    // Leaves the last one of each path.
    void dropReplaced() {
        std::ranges::sort(found_, std::ranges::greater(), [](const Found& f) { return std::pair(f.path, f.number); });
        const auto samePath = [](const Found& a, const Found& b) { return a.path == b.path; };
        found_.erase(std::unique(found_.begin(), found_.end(), samePath), found_.end());
        std::ranges::sort(found_, {}, &Found::number);
    }

    [[nodiscard]] bool empty() const { return found_.empty(); }

    // The index and the entry may disagree about the path.
    [[nodiscard]] bool contains(std::uint64_t number, std::string_view path) const {
        return std::ranges::binary_search(found_, number, {}, &Found::number) && pattern_.matches(path);
    }

private:
    struct Found {
        std::uint64_t path = 0;  // its hash
        std::uint64_t number = 0;
    };

    PathPattern pattern_;
    std::vector<Found> found_;
};

Result<std::vector<NamedEntries>, ReadFault> findEntries(ArchiveReader& reader,
                                                         const std::vector<std::string>& patterns) {
    std::vector<NamedEntries> named;
    named.reserve(patterns.size());
    for (const auto& pattern : patterns) named.emplace_back(pattern);
    const KeyedHash hash;
    const auto add = [&](std::uint64_t number, const IndexEntry& entry) {
        for (auto& one : named) one.add(number, entry, hash);
        return true;
    };
    if (auto listed = reader.list(add); !listed) return listed.error();
    for (auto& one : named) one.dropReplaced();
    return named;
}

// What is not a file stops the reading of its pattern only.
ReadOutcome writeFiles(ArchiveReader& reader, const std::vector<NamedEntries>& named, OutputSink& sink) {
    ReadOutcome worst;
    for (const auto& one : named) {
        const auto chosen = [&](std::uint64_t number, std::string_view path) { return one.contains(number, path); };
        if (one.empty()) continue;
        auto outcome = reader.readChosen(chosen, sink);
        if (outcome.fault() || std::ferror(stdout)) return outcome;
        if (!outcome) worst = std::move(outcome);
    }
    return worst;
}

}  // namespace

CommandResult writeContents(const ArchiveOptions& options, const std::vector<std::string>& patterns) {
    shareTerminal();
    const auto reader = openArchive(options);
    if (!reader) return reader.error();
    const auto named = findEntries(**reader, patterns);
    if (!named) return archiveError(options.archive, named.error());
    OutputSink sink;
    auto result = finishOutput(options.archive, writeFiles(**reader, *named, sink));
    if (!result) return result;
    bool complete = !sink.incomplete();
    for (std::size_t i = 0; i < patterns.size(); ++i) {
        if (!(*named)[i].empty()) continue;
        report(notInArchive(patterns[i]));
        complete = false;
    }
    return complete ? result : exitFailed;
}

CommandRun declareCat(CommandOptions& command) {
    const auto options = std::make_shared<CatOptions>();
    declareKeyAndArchive(command, *options);
    declareProgress(command);
    command.addRequiredList("PATH", options->patterns, "the files, as paths or globs");
    return [options] { return writeContents(*options, options->patterns); };
}

}  // namespace tarnwick::qvx
