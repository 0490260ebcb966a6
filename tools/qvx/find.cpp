// qvx find
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "entry_conditions.h"
#include "listing.h"
#include "path_pattern.h"
#include "progress.h"
#include "regular_expression.h"

namespace tarnwick::qvx {

namespace {

struct FindOptions : ArchivesOptions {
    std::string pattern;
    ConditionTexts conditions;
    bool regex = false;
    bool json = false;
};

// Whether a path is one of those that are searched. Fails when that cannot be found out.
using PathTest = std::function<Result<bool>(const std::string& path)>;

PathTest matchPattern(const std::string& text) {
    return
        [pattern = PathPattern(text, true)](const std::string& path) -> Result<bool> { return pattern.matches(path); };
}

Result<PathTest> matchExpression(const std::string& text) {
    const auto expression = RegularExpression::compile(text, {});
    if (!expression) return expression.error();
    return PathTest(
        [search = std::make_shared<ExpressionSearch>(*expression)](const std::string& path) -> Result<bool> {
            const auto found = search->find(path);
            if (!found) return found.error();
            return found->has_value();
        });
}

struct Query {
    PathTest path;
    EntryConditions conditions;
    bool json = false;
};

Result<Query> parseQuery(const FindOptions& options) {
    auto path = options.regex ? matchExpression(options.pattern) : matchPattern(options.pattern);
    if (!path) return path.error();
    auto conditions = EntryConditions::parse(options.conditions);
    if (!conditions) return conditions.error();
    return Query{std::move(*path), std::move(*conditions), options.json};
}

CommandResult findIn(const Query& query, EVP_PKEY* key, const std::string& archive, const std::string& prefix) {
    const auto reader = openArchive(archive, key);
    if (!reader) return reader.error();
    bool searched = true;
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        if (!query.conditions.match(entry)) return true;
        const auto matches = query.path(entry.path);
        if (!matches) report(Error{matches.error().text, 0, entryName(entry.path)});
        searched = searched && matches;
        if (!matches || !*matches) return true;
        const std::string line = query.json ? indexJson(prefix.empty() ? "" : archiveName(archive), number, entry)
                                            : prefix + escapedName(entryName(entry.path));
        return std::puts(line.c_str()) >= 0;
    };
    const auto listed = (*reader)->list(visit);
    const auto finished = finishOutput(archive, listed ? ReadOutcome() : ReadOutcome(listed.error()));
    return finished && !searched ? exitFailed : finished;
}

CommandResult runFind(const FindOptions& options) {
    shareTerminal();
    const auto query = parseQuery(options);
    if (!query) return CommandError{query.error(), exitUsage};
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    return forEachArchive(options.archives, [&](const auto& archive, const auto& prefix) {
        return findIn(*query, key->get(), archive, prefix);
    });
}

}  // namespace

CommandRun declareFind(CommandOptions& command) {
    const auto options = std::make_shared<FindOptions>();
    command.addFlag("--regex", options->regex, "PATTERN is a regular expression that is searched in the path");
    command.add("--type", options->conditions.types, "only files (f), directories (d) or links (l); several: f,l");
    command.add("--newer", options->conditions.newer, "only what was modified after a time, or after a FILE was");
    command.addRepeatable("--size", options->conditions.sizes, "N, +N or -N blocks of 512 bytes; with c, k, M or G");
    command.addFlag("--json", options->json, "print one JSON object an entry, as list does");
    declareKey(command, options->key);
    declareProgress(command);
    command.addRequired("PATTERN", options->pattern, "a path, or a glob for names or paths");
    declareArchives(command, options->archives);
    return [options] { return runFind(*options); };
}

}  // namespace tarnwick::qvx
