#include "create.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include "archive_access.h"
#include "archive_output.h"
#include "collection.h"
#include "commands.h"
#include "key_files.h"
#include "progress.h"
#include "qvx/archive_writer.h"
#include "report.h"

namespace tarnwick::qvx {

namespace fs = std::filesystem;

namespace {

constexpr unsigned readers = 8;     // they mostly wait for the disk
constexpr unsigned maxSealers = 8;  // each needs memory, and a single thread fills the blocks for all of them

// Calls `use` for each name in the file until it fails.
template <typename Use>
Status readNames(const std::string& path, const Use& use) {
    struct Line {
        ~Line() { std::free(bytes); }
        char* bytes = nullptr;
        std::size_t capacity = 0;
    } line;
    const auto closeFile = [](std::FILE* file) {
        if (file != stdin) std::fclose(file);
    };
    const std::unique_ptr<std::FILE, decltype(closeFile)> file(path == "-" ? stdin : std::fopen(path.c_str(), "re"),
                                                               closeFile);
    if (!file) return systemError(errno, path);
    for (ssize_t length = 0; (length = getdelim(&line.bytes, &line.capacity, '\0', file.get())) >= 0;) {
        const std::string_view name(line.bytes, static_cast<std::size_t>(length));
        if (Status used = use(std::string(name.substr(0, name.find('\0')))); !used) return used;
    }
    return std::feof(file.get()) ? Status() : systemError(errno, path);
}

Status collect(Collection& collection, const CreateOptions& options) {
    const auto addOne = [&](const std::string& path) { return collection.add(path); };
    if (!options.namesFrom.empty())
        if (Status added = readNames(options.namesFrom, addOne); !added) return added;
    DirectoryReadAhead ahead(readers);
    for (const std::string& path : options.paths)
        if (Status added = collection.addTree(path, ahead); !added) return added;
    return {};
}

Result<std::vector<IncompleteEntry>> writeArchive(const PathList& list, std::span<const Point> recipients,
                                                  ArchiveOutput& output, bool strict) {
    if (Status created = output.create(); !created) return created.error();
    // More sealers than cores only evict one another's data from the caches.
    const unsigned sealers = std::clamp(std::thread::hardware_concurrency(), 1U, maxSealers);
    auto writer = ArchiveWriter::open(recipients, sealers, output.sink());
    if (!writer) return writer.error();
    auto incomplete = writer->write(list, allFields, readers, strict ? Unreadable::fail : Unreadable::mark,
                                    {.entry = reportEntry, .content = countBytes});
    if (!incomplete) return incomplete;
    if (Status placed = output.place(); !placed) return placed.error();
    return incomplete;
}

Result<Creation> create(std::span<const Point> recipients, const CreateOptions& options) {
    // Before the files are read, which may take hours.
    if (Status checked = checkRecipients(recipients); !checked) return checked.error();
    auto output = ArchiveOutput::open(options.output);
    if (!output) return output.error();
    std::error_code error;
    const auto working = fs::current_path(error);
    if (error) return systemError(error.value(), "the working directory");
    Collection collection(*output, working, options.strict);
    if (Status collected = collect(collection, options); !collected) return collected.error();
    if (collection.list().size() == 0 && !collection.complete())
        return Error{"no archive is made, because none of the files can be reached"};
    const std::string name = options.output == "-" ? "standard output" : options.output;
    beginProgress(name);
    if (const auto size = collection.contentSize()) expectBytes(name, *size);
    const auto incomplete = writeArchive(collection.list(), recipients, *output, options.strict);
    if (!incomplete) return incomplete.error();
    for (const IncompleteEntry& entry : *incomplete)
        report(escapedName(collection.list().pathOf(entry.number)) + ": stored as incomplete: " + reasonText(entry));
    return incomplete->empty() && collection.complete() ? Creation::complete : Creation::incomplete;
}

}  // namespace

Result<Creation> createArchive(const CreateOptions& options) {
    const auto recipients = loadRecipients(options.recipients);
    if (!recipients) return recipients.error();
    return create(*recipients, options);
}

namespace {

CommandResult runCreate(const CreateOptions& options) {
    if (options.paths.empty() && options.namesFrom.empty())
        return CommandError{{"there is nothing to put into the archive"}, exitUsage};
    const auto made = createArchive(options);
    if (!made) return CommandError{made.error()};
    return *made == Creation::complete ? exitSuccess : exitFailed;
}

}  // namespace

CommandRun declareCreate(CommandOptions& command) {
    const auto options = std::make_shared<CreateOptions>();
    declareRecipients(command, options->recipients);
    command.addRequired("-o,--output", options->output, "the archive to make, - for standard output");
    command.addFlag("--strict", options->strict, "make no archive if a file cannot be read");
    declareProgress(command);
    command.add("--files0-from", options->namesFrom, "file of names ending with a zero byte, - for input");
    command.add("PATH", options->paths, "what to put in; directories with all below them");
    return [options] { return runCreate(*options); };
}

}  // namespace tarnwick::qvx
