// qvx diff
#include <cstdio>
#include <memory>
#include <new>

#include "archive_access.h"
#include "archive_comparison.h"
#include "commands.h"
#include "listing.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

// As diff(1) has them.
constexpr ExitStatus exitSame = exitSuccess;
constexpr auto exitDifferent = ExitStatus{1};
constexpr auto exitTrouble = ExitStatus{2};

struct DiffOptions {
    std::string before;
    std::string after;
    std::string key;
    bool json = false;
    bool quick = false;
};

std::string valuesJson(const ComparedEntry& entry) {
    IndexEntry values;
    values.type = entry.type;
    values.mode = entry.mode;
    values.userId = entry.userId;
    values.groupId = entry.groupId;
    values.size = entry.size;
    values.modifiedSeconds = entry.modifiedSeconds;
    values.incomplete = entry.incomplete;
    JsonObject object;
    addIndexValues(object, values);
    return object.finish();
}

// One path that is not the same in both archives; the pointers are null where it is missing.
struct Change {
    const char* verb;
    const std::string& path;
    const ComparedEntry* before;
    const ComparedEntry* after;
    std::vector<Difference> differences;

    [[nodiscard]] std::string line() const;
    [[nodiscard]] std::string json() const;
};

std::string Change::line() const {
    std::string text;
    for (const auto& [field, from, to] : differences) {
        text += (text.empty() ? ": " : ", ") + std::string(field);
        if (!from.empty()) text.append(" ").append(from).append(" to ").append(to);
    }
    return std::string(verb) + ' ' + escapedName(entryName(path)) + text;
}

std::string Change::json() const {
    JsonArray names;
    for (const auto& difference : differences) names.add(jsonString(difference.field));
    JsonObject object;
    object.text("change", verb);
    object.text("path", path);
    if (!differences.empty()) object.raw("fields", names.finish());
    if (before) object.raw("before", valuesJson(*before));
    if (after) object.raw("after", valuesJson(*after));
    return object.finish();
}

// Compares two archives and prints what differs.
class Comparison {
public:
    Comparison(const DiffOptions& options, ArchiveReader& before, ArchiveReader& after)
        : options_(options), before_(before, hash_), after_(after, hash_) {}

    CommandResult run();

private:
    Result<void, CommandError> read();
    Result<void, CommandError> print();
    bool printOld(std::uint64_t number, const std::string& path);
    bool printNew(std::uint64_t number, const std::string& path);
    bool print(const Change& change);

    const DiffOptions& options_;
    const KeyedHash hash_;
    ComparedArchive before_;
    ComparedArchive after_;
    ExitStatus status_ = exitSame;
};

CommandResult Comparison::run() {
    if (const auto done = read(); !done) return done.error();
    if (const auto done = print(); !done) return done.error();
    const auto finished = finishOutput(options_.before, {});
    return finished ? status_ : finished;
}

Result<void, CommandError> Comparison::read() {
    if (const auto done = before_.readIndex(); !done) return archiveError(options_.before, done.error());
    if (const auto done = after_.readIndex(); !done) return archiveError(options_.after, done.error());
    pairEntries(before_, after_);
    if (options_.quick) return {};
    if (const auto done = before_.readMetadata(); !done) return archiveError(options_.before, done.error());
    if (const auto done = after_.readMetadata(); !done) return archiveError(options_.after, done.error());
    return {};
}

// What was removed or changed in the order of the first archive, then what was added in that of the second.
Result<void, CommandError> Comparison::print() {
    const auto old = before_.reader().list(
        [&](std::uint64_t number, const IndexEntry& entry) { return printOld(number, entry.path); });
    if (!old) return archiveError(options_.before, old.error());
    const auto recent = after_.reader().list(
        [&](std::uint64_t number, const IndexEntry& entry) { return printNew(number, entry.path); });
    if (!recent) return archiveError(options_.after, recent.error());
    return {};
}

bool Comparison::printOld(std::uint64_t number, const std::string& path) {
    const ComparedEntry& entry = before_.entries()[number];
    if (entry.replaced) return true;
    if (entry.partner == ComparedEntry::none) return print({"removed", path, &entry, nullptr, {}});
    const ComparedEntry& partner = after_.entries()[entry.partner];
    if (!options_.quick && !contentsAreComparable(entry, partner)) {
        report(Error{"no digest is stored: the contents were not compared", 0, path});
        status_ = exitTrouble;
    }
    auto differences = compareEntries(entry, partner);
    return differences.empty() || print({"changed", path, &entry, &partner, std::move(differences)});
}

bool Comparison::printNew(std::uint64_t number, const std::string& path) {
    const ComparedEntry& entry = after_.entries()[number];
    if (entry.replaced || entry.partner != ComparedEntry::none) return true;
    return print({"added", path, nullptr, &entry, {}});
}

bool Comparison::print(const Change& change) {
    status_ = std::max(status_, exitDifferent);
    return std::puts((options_.json ? change.json() : change.line()).c_str()) >= 0;
}

CommandResult compare(const DiffOptions& options) {
    shareTerminal();
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    const auto before = openArchive(options.before, key->get());
    if (!before) return before.error();
    const auto after = openArchive(options.after, key->get());
    if (!after) return after.error();
    return Comparison(options, **before, **after).run();
}

// No failure may end with the status of a difference.
CommandResult runDiff(const DiffOptions& options) {
    CommandError error{{"out of memory"}};
    try {
        auto result = compare(options);
        if (result) return result;
        error = result.error();
    } catch (const std::bad_alloc&) {
    }
    error.status = exitTrouble;
    return error;
}

}  // namespace

CommandRun declareDiff(CommandOptions& command) {
    const auto options = std::make_shared<DiffOptions>();
    command.addFlag("--json", options->json, "print one JSON object a change");
    command.addFlag("--quick", options->quick, "compare only what list prints, which the indexes have");
    declareKey(command, options->key);
    declareProgress(command, {.quiet = "--quiet", .verbose = "--verbose"});
    command.addRequired("BEFORE", options->before, "the first archive");
    command.addRequired("AFTER", options->after, "the second archive");
    return [options] { return runDiff(*options); };
}

}  // namespace tarnwick::qvx
