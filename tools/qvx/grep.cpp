// qvx grep
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>

#include "archive_access.h"
#include "commands.h"
#include "content_search.h"
#include "path_pattern.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

// As grep has them.
constexpr ExitStatus exitFound = exitSuccess;
constexpr ExitStatus exitNotFound = exitFailed;
constexpr ExitStatus exitTrouble = exitUsage;

struct GrepOptions : ArchivesOptions {
    std::string expression;
    std::vector<std::string> include;
    bool ignoreCase = false;
    bool lineNumbers = false;
    bool counts = false;
    bool paths = false;
    bool literal = false;
    bool extended = false;  // all expressions are
    bool json = false;
    bool keepsCompressed = false;
};

bool isShown() { return isatty(STDOUT_FILENO) == 1; }

bool wantsColours() {
    const char* off = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isShown() && !(off && *off) && terminal && std::string_view(terminal) != "dumb";
}

MatchStyle styleOf(const GrepOptions& options) {
    using Unit = MatchStyle::Unit;
    return {.unit = options.paths || isQuiet() ? Unit::paths
                    : options.counts           ? Unit::counts
                                               : Unit::lines,
            .lineNumbers = options.lineNumbers,
            .json = options.json,
            .quiet = isQuiet(),
            .namesArchive = options.archives.size() > 1,
            .escapes = isShown(),
            .colours = wantsColours()};
}

// The damage of one archive. It is printed after the matches, and in short: verify reports all of it.
class DamageReport {
public:
    void add(const ReadFault& fault) {
        if (++count_ <= maxPrinted) faults_.push_back(fault);
    }

    void print(const std::string& archive) const {
        for (const auto& fault : faults_) report(archiveError(archive, fault));
        if (count_ > maxPrinted)
            report(escapedName(archiveName(archive)) + ": and " + std::to_string(count_ - maxPrinted) +
                   " more faults; `qvx verify` reports all");
    }

    [[nodiscard]] bool any() const { return count_ > 0; }

private:
    static constexpr std::size_t maxPrinted = 8;

    std::vector<ReadFault> faults_;
    std::size_t count_ = 0;
};

class Grep {
public:
    Grep(const GrepOptions& options, const LineExpression& expression)
        : options_(options), expression_(expression), style_(styleOf(options)) {
        for (const auto& pattern : options.include) patterns_.emplace_back(pattern, true);
    }

    // Prints the matches in the archive.
    CommandResult search(const std::string& archive, EVP_PKEY* key) {
        if (isQuiet() && found_) return exitSuccess;
        // An archive that is cut has no index. What is left of it is searched all the same.
        const auto reader = openArchive(archive, key, ArchiveReader::Opening::salvage, Access::inOrder);
        if (!reader) return reader.error();
        MatchOutput output(archiveName(archive), style_);
        DamageReport damage;
        searchContents(**reader, output, damage);
        found_ = found_ || output.found();
        if (output.writeError() != 0) errno = output.writeError();  // another thread's, for finishOutput
        const auto written = finishOutput(archive, {});
        damage.print(archive);
        return written && (output.failed() || damage.any()) ? exitFailed : written;
    }

    [[nodiscard]] bool found() const { return found_; }

private:
    void searchContents(ArchiveReader& reader, MatchOutput& output, DamageReport& damage) {
        const auto isIncluded = [this](std::string_view path) { return includes(path); };
        ContentSearch search({.expression = expression_,
                              .decompresses = !options_.keepsCompressed,
                              .countsLines = style_.countsLines(),
                              .unit = style_.unit},
                             isIncluded, output);
        const auto chosen = [&](std::uint64_t, std::string_view path) { return includes(path); };
        static_cast<void>(reader.searchChosen(chosen, search, [&](const ReadFault& fault) { damage.add(fault); }));
        search.finishAll();
    }

    [[nodiscard]] bool includes(std::string_view path) const {
        return patterns_.empty() ||
               std::ranges::any_of(patterns_, [&](const auto& pattern) { return pattern.matchesAtOrAbove(path); });
    }

    const GrepOptions& options_;
    const LineExpression& expression_;
    MatchStyle style_;
    std::vector<PathPattern> patterns_;
    bool found_ = false;
};

CommandResult searchAll(const GrepOptions& options) {
    const auto expression = LineExpression::compile(options.expression, options.literal, options.ignoreCase);
    if (!expression) return CommandError{expression.error()};
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    if (!isShown()) shareTerminal();  // otherwise the output removes the line
    Grep grep(options, *expression);
    const auto done = forEachArchive(
        options.archives, [&](const auto& archive, const auto&) { return grep.search(archive, key->get()); });
    if (isQuiet() && grep.found()) return exitFound;
    if (!done || *done != exitSuccess) return exitTrouble;
    return grep.found() ? exitFound : exitNotFound;
}

// No failure may end with the status of a search that has found nothing.
CommandResult runGrep(const GrepOptions& options) {
    CommandError error{{"out of memory"}};
    try {
        auto result = searchAll(options);
        if (result) return result;
        error = result.error();
    } catch (const std::bad_alloc&) {
    } catch (const std::exception& failure) {
        error.text = failure.what();
    }
    error.status = exitTrouble;
    return error;
}

}  // namespace

CommandRun declareGrep(CommandOptions& command) {
    const auto options = std::make_shared<GrepOptions>();
    command.addFlag("-F,--fixed-strings", options->literal, "EXPRESSION is a text, in which no character is special");
    command.addFlag("-E,--extended-regexp", options->extended, "no effect; for the habit of grep");
    command.addFlag("-i,--ignore-case", options->ignoreCase, "do not distinguish A-Z from a-z");
    command.addFlag("-n,--line-number", options->lineNumbers, "print line numbers");
    command.addFlag("-c,--count", options->counts, "print how many lines match in each file that has any");
    command.addFlag("-l,--files-with-matches", options->paths, "print only the paths of files with a match");
    command.addRepeatable("--include", options->include,
                          "search only files with this path or name, which may be a glob; may be repeated");
    command.addFlag("--no-decompress", options->keepsCompressed, "search compressed files as they are");
    command.addFlag("--json", options->json, "one JSON object a match");
    declareKey(command, options->key);
    declareProgress(command, {.quietHelp = "print no match, and end at the first one", .verbose = "--verbose"});
    command.addRequired("EXPRESSION", options->expression, "a Perl-compatible regular expression");
    declareArchives(command, options->archives);
    return [options] { return runGrep(*options); };
}

}  // namespace tarnwick::qvx
