#include "qvx/extract/deferred_work.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/visible_text.h"
#include "qvx/extract/inode_flags.h"

namespace tarnwick::qvx {

namespace {

enum Task : std::uint8_t { directory, flags, kept };

// A place: the depth in the upper bits, so that a deeper path is less, and the position in the spool in the others.
constexpr unsigned positionBits = 52;
constexpr std::uint64_t maxPosition = (std::uint64_t{1} << positionBits) - 1;
constexpr std::uint64_t maxDepth = 4095;  // a path has fewer slashes

constexpr std::size_t maxNameLength = 255;
constexpr int maxIncompleteNames = 999;  // of one file

// NAME.incomplete, then NAME.incomplete.1 to NAME.incomplete.998.
std::string incompleteName(const std::string& name, int number) {
    constexpr std::string_view suffix = ".incomplete";
    constexpr std::size_t maxNumberLength = 4;
    const std::string end = number > 0 ? '.' + std::to_string(number) : "";
    return name.substr(0, maxNameLength - suffix.size() - maxNumberLength) + std::string(suffix) + end;
}

// A free name. The names with lower numbers are used, if there is no gap in those that are. Not more than ten calls,
// because an archive may have any number of damaged entries with one path.
std::string freeIncompleteName(int parent, const std::string& name) {
    int used = -1;
    int free = maxIncompleteNames - 1;
    while (free - used > 1) {
        const int middle = used + (free - used) / 2;
        struct stat status {};
        const std::string tried = incompleteName(name, middle);
        (fstatat(parent, tried.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 ? used : free) = middle;
    }
    return incompleteName(name, free);
}

// Does one task.
class Worker {
public:
    Worker(ExtractionRun& run, Destination& destination) : run_(run), destination_(destination) {}

    Status run(Bytes record) {
        WireReader in(record);
        const std::uint8_t task = in.byte();
        const auto head = decodeEntryHead(in.bytes(in.varint()));
        if (!head) return Error{"the temporary file has changed"};
        head_ = *head;
        name_ = Destination::nameOf(head_.path);
        const auto parent = destination_.openParent(head_.path);
        // A later entry of the same path may have replaced the directory.
        if (!parent) return task == kept ? parent.error() : Status();
        const Status done = task == directory ? finishDirectory(*parent, in.bytes(in.left()))
                            : task == flags   ? setFlags(*parent, in)
                                              : nameKept(*parent, std::string(in.text()));
        return done ? done : Error{done.error().text, done.error().code, head_.path};
    }

private:
    Status finishDirectory(int parent, Bytes details) {
        const auto tail = decodeEntryTail(details);
        const FileDescriptor file(openat(parent, name_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!file || !tail) return {};  // it was replaced
        restoreMetadata(run_, head_, *tail, file.get());
        if (run_.preserves() && hasInodeFlags(head_)) restoreInodeFlags(run_, head_, file.get());
        return {};
    }

    Status setFlags(int parent, WireReader& in) {
        const FileDescriptor file(openat(parent, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        const auto found = identityOf(file.get());
        if (found && *found == decodeIdentity(in)) restoreInodeFlags(run_, head_, file.get());
        return {};
    }

    Status nameKept(int parent, const std::string& temporaryName) {
        const std::string name = freeIncompleteName(parent, name_);
        if (renameat2(parent, temporaryName.c_str(), parent, name.c_str(), RENAME_NOREPLACE) != 0) {
            const int code = errno;
            unlinkat(parent, temporaryName.c_str(), 0);
            return systemError(code);
        }
        run_.warn({"the part that was read is kept as " + visibleText(name), 0, head_.path});
        return {};
    }

    ExtractionRun& run_;
    Destination& destination_;
    EntryHead head_;
    std::string name_;
};

}  // namespace

Status DeferredWork::addDirectory(const EntryHead& head, const EntryTail& tail) {
    std::vector<std::uint8_t> details;
    encodeEntryTail(tail, details);
    return add(head, directory, details);
}

Status DeferredWork::addFlags(const EntryHead& head, const FileIdentity& identity) {
    std::vector<std::uint8_t> details;
    WireWriter out(details);
    encodeIdentity(identity, out);
    return add(head, flags, details);
}

Status DeferredWork::addKept(const EntryHead& head, const std::string& temporaryName) {
    std::vector<std::uint8_t> details;
    WireWriter(details).text(temporaryName);
    return add(head, kept, details);
}

Status DeferredWork::add(const EntryHead& head, std::uint8_t task, Bytes details) {
    std::vector<std::uint8_t> headBytes;
    std::vector<std::uint8_t> record;
    encodeEntryHead(head, headBytes);
    WireWriter out(record);
    out.byte(task);
    out.varint(headBytes.size());
    out.bytes(headBytes);
    out.bytes(details);
    if (auto charged = run_.chargeSpace(record.size()); !charged) return charged;
    const auto position = spool_.append(record);
    if (!position) return position.error();
    const auto depth = static_cast<std::uint64_t>(std::ranges::count(head.path, '/'));
    places_.push_back((maxDepth - depth) << positionBits | *position);
    return {};
}

void DeferredWork::finish(Destination& destination) {
    std::ranges::sort(places_);
    Worker worker(run_, destination);
    std::vector<std::uint8_t> record;
    for (const std::uint64_t place : places_) {
        Status done = spool_.read(place & maxPosition, record);
        if (done) done = worker.run(record);
        if (!done) run_.fail(done.error());
    }
    places_.clear();
}

}  // namespace tarnwick::qvx
