#include "create.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "archive_access.h"
#include "commands.h"
#include "key_files.h"
#include "qvx/archive_writer.h"
#include "qvx/write/disk_entry.h"
#include "report.h"

namespace tarnwick::qvx {

namespace fs = std::filesystem;

namespace {

constexpr unsigned readers = 8;     // they mostly wait for the disk
constexpr unsigned maxSealers = 8;  // each needs memory, and a single thread fills the blocks for all of them

struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
};

std::optional<FileIdentity> identify(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    return FileIdentity{status.st_dev, status.st_ino};
}

// Collects the files for an archive. Reports what it leaves out.
class Collection {
public:
    explicit Collection(std::optional<FileIdentity> output) : working_(fs::current_path().string()), output_(output) {}

    Status add(const std::string& path) {
        const auto entry = lookUp(working_, path);
        if (!entry) return entry.error();
        list_.append(*entry);
        return {};
    }

    // Adds the path and, if it is a directory, everything below it in order of names.
    Status addTree(const std::string& path) {
        if (Status added = add(path); !added) return added;
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0) return systemError(errno, path);
        return S_ISDIR(status.st_mode) ? addBelow(path) : Status();
    }

    [[nodiscard]] const PathList& list() const { return list_; }
    [[nodiscard]] bool complete() const { return complete_; }  // every directory could be read

private:
    using DirectoryHandle = std::unique_ptr<DIR, FreeWith<closedir>>;
    struct DirectoryEntry {
        std::string name;
        std::optional<EntryType> type;
    };

    Status addBelow(const std::string& directory) {
        DirectoryHandle opened(opendir(directory.c_str()));
        const int error = opened ? 0 : errno;
        if (error != 0 && !isUnreadable(error)) return systemError(error, directory);
        if (error != 0) {
            reportError(escapedName(directory) + ": the files in it are left out", error);
            complete_ = false;
            return {};
        }
        const auto below = readBelow(std::move(opened), directory);
        if (!below) return below.error();
        const std::string prefix = directory.ends_with('/') ? directory : directory + '/';
        for (const auto& [name, type] : *below)
            if (Status added = addEntry(prefix + name, type); !added) return added;
        return {};
    }

    // Most directories store the kind of a file, which saves a look at the file. The iterator of the standard library
    // would end the process when memory runs out. Closes the directory: the recursion may be deep, and descriptors are
    // limited.
    static Result<std::vector<DirectoryEntry>> readBelow(DirectoryHandle opened, const std::string& directory) {
        std::vector<DirectoryEntry> below;
        for (errno = 0; const dirent* entry = readdir(opened.get()); errno = 0) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            struct stat status {};
            status.st_mode = DTTOIF(entry->d_type);
            if (entry->d_type == DT_UNKNOWN &&
                fstatat(dirfd(opened.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                return systemError(errno, directory);
            below.push_back({std::string(name), entryTypeOf(status.st_mode)});
        }
        if (errno != 0) return systemError(errno, directory);
        std::sort(below.begin(), below.end(),
                  [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
        return below;
    }

    // Files that an archive cannot contain are left out; so is the archive itself.
    Status addEntry(const std::string& path, std::optional<EntryType> type) {
        const bool output = type == EntryType::file && isOutput(path);
        if (!type) report(escapedName(path) + ": left out: not a file, a directory or a symbolic link");
        if (output) report(escapedName(path) + ": left out: it is the archive itself");
        if (!type || output) return {};
        Status added = add(path);
        return added && type == EntryType::directory ? addBelow(path) : added;
    }

    [[nodiscard]] bool isOutput(const std::string& path) const {
        struct stat status {};
        return output_ && lstat(path.c_str(), &status) == 0 && status.st_dev == output_->device &&
               status.st_ino == output_->inode;
    }

    PathList list_;
    std::string working_;
    std::optional<FileIdentity> output_;
    bool complete_ = true;
};

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
    for (const std::string& path : options.paths)
        if (Status added = collection.addTree(path); !added) return added;
    return {};
}

// Removes the file when an archive was not completed. A file that existed and could not be opened is kept.
struct UnfinishedOutput {
    ~UnfinishedOutput() {
        struct stat status {};
        if (removable && lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) unlink(path.c_str());
    }
    const std::string& path;
    bool removable;
};

Result<std::vector<IncompleteEntry>> writeArchive(const PathList& list, std::span<const Point> recipients,
                                                  const std::string& output, bool existed) {
    UnfinishedOutput unfinished{output, !existed};
    const auto file = openArchiveForWriting(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!file) return file.error();
    unfinished.removable = true;
    // More sealers than cores only evict one another's data from the caches.
    const unsigned sealers = std::clamp(std::thread::hardware_concurrency(), 1U, maxSealers);
    auto writer = ArchiveWriter::open(recipients, sealers, fileSink(file->get(), output));
    if (!writer) return writer.error();
    auto incomplete = writer->write(list, allFields, readers);
    unfinished.removable = !incomplete;
    return incomplete;
}

Result<Creation> create(std::span<const Point> recipients, const CreateOptions& options) {
    // Before an existing archive is overwritten.
    if (Status checked = checkRecipients(recipients); !checked) return checked.error();
    const auto before = identify(options.output);
    Collection collection(before);
    if (Status collected = collect(collection, options); !collected) return collected.error();
    const auto incomplete = writeArchive(collection.list(), recipients, options.output, before.has_value());
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
    command.addRequired("-o,--output", options->output, "the archive to make");
    command.add("--files0-from", options->namesFrom, "file of names ending with a zero byte, - for input");
    command.add("PATH", options->paths, "what to put in; directories with all below them");
    return [options] { return runCreate(*options); };
}

}  // namespace tarnwick::qvx
