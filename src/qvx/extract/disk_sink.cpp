#include "qvx/extract/disk_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/visible_text.h"
#include "qvx/read/incomplete_text.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxNameLength = 255;
// Ends the search for a free name in a directory that somebody has filled with such names.
constexpr int maxIncompleteNames = 999;  // of one file

// Replaces an existing file. An existing directory stays.
Status createDirectory(int parent, const std::string& name) {
    // Accessible only to this user until the extraction ends, when the final mode is set.
    const auto make = [&] { return mkdirat(parent, name.c_str(), 0700) == 0; };
    if (make()) return {};
    struct stat status {};
    if (errno != EEXIST || fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return systemError(errno);
    if (S_ISDIR(status.st_mode) || (unlinkat(parent, name.c_str(), 0) == 0 && make())) return {};
    return systemError(errno);
}

// NAME.incomplete, then NAME.incomplete.1 to NAME.incomplete.998.
std::string incompleteName(const std::string& name, int attempt) {
    constexpr std::string_view suffix = ".incomplete";
    constexpr std::size_t maxNumberLength = 4;
    const std::string number = attempt > 0 ? '.' + std::to_string(attempt) : "";
    return name.substr(0, maxNameLength - suffix.size() - maxNumberLength) + std::string(suffix) + number;
}

}  // namespace

bool DiskSink::begin(const EntryHead& head) {
    head_ = head;
    name_ = Destination::nameOf(head.path);
    linkTarget_.clear();
    skipping_ = head.path.empty();  // the destination itself
    if (!skipping_) skipIfFailed(beginEntry());
    return !run_.interrupted();
}

bool DiskSink::data(Bytes bytes) {
    if (head_.type == EntryType::link) {
        linkTarget_.append(bytes.begin(), bytes.end());
    } else if (!skipping_) {
        skipIfFailed(file_.append(bytes));
    }
    return !run_.interrupted();
}

bool DiskSink::hole(std::uint64_t length) {
    if (!skipping_) skipIfFailed(file_.appendHole(length));
    return !run_.interrupted();
}

bool DiskSink::finish(const EntryTail& tail, const ContentReader& content) {
    if (skipping_) return !run_.interrupted();
    if (tail.unreadable) run_.fail({incompleteText(head_.type, tail), 0, head_.path});
    skipIfFailed(finishEntry(tail, content));
    return !run_.interrupted();
}

void DiskSink::abandon() {
    if (run_.keepsIncomplete() && !skipping_ && !file_.isEmpty()) skipIfFailed(keepIncomplete());
    file_.discard();
}

void DiskSink::finishDirectories() {
    file_.discard();  // of an entry that was begun when the reading ended
    waitForPending();
    directories_.restore(run_, destination_);
}

Status DiskSink::beginEntry() {
    // A writer thread may still have to create an earlier file whose path is this one, or is above or below it. That
    // file must not be created after this entry.
    if (pending_.conflictWith(head_.path)) waitForPending();
    const auto parent = destination_.makeParent(head_.path);
    if (!parent) return parent.error();
    parent_ = *parent;
    file_.begin(parent_, head_);
    return head_.type == EntryType::directory ? createDirectory(parent_, name_) : Status();
}

Status DiskSink::finishEntry(const EntryTail& tail, const ContentReader& content) {
    if (head_.type == EntryType::directory) return directories_.add(head_, tail);
    if (head_.type == EntryType::link) return finishLink(tail);
    if (tail.contentOf) return finishReference(tail, content);
    return file_.isInMemory() ? submitToWriters(tail) : commit(tail);
}

Status DiskSink::finishLink(const EntryTail& tail) {
    if (linkTarget_.empty()) return Error{"the link has no target"};
    // symlink(2) would end the target at the zero byte.
    if (linkTarget_.find('\0') != std::string::npos) return Error{"the target of the link is malformed"};
    if (auto made = file_.temporary().create(parent_, head_, &linkTarget_); !made) return made;
    return commit(tail);
}

// The content is in an earlier entry, which may also be another name of the same file.
Status DiskSink::finishReference(const EntryTail& tail, const ContentReader& content) {
    waitForPending();  // the file with the content may still be in the queue
    // The archive contains this path twice. To write the same file again would change nothing.
    if (extracted_.pathOf(*tail.contentOf) == head_.path && extracted_.isInPlace(parent_, name_, head_, tail)) {
        extracted_.add(head_.number, head_.path);
        return {};
    }
    if (tail.hardLink && extracted_.link(*tail.contentOf, tail, parent_, file_.temporary())) return commit(tail);
    if (auto copied = copyContent(tail, content); !copied || run_.interrupted()) return copied;
    return commit(tail);
}

Status DiskSink::copyContent(const EntryTail& tail, const ContentReader& content) {
    TemporaryFile& file = file_.temporary();
    if (auto made = file.create(parent_, head_); !made) return made;
    // From the file that was extracted earlier, so that its blocks need not be opened again.
    if (extracted_.copy(*tail.contentOf, tail, file) || run_.interrupted()) return {};
    // From the archive, into a new file: what was copied above is incomplete or wrong.
    if (auto made = file.create(parent_, head_); !made) return made;
    DigestingSink sink(run_, &file);
    const Status read = content(sink);
    if (read || run_.interrupted()) return {};
    return sink.written() ? read : sink.written();
}

Status DiskSink::submitToWriters(const EntryTail& tail) {
    // The file is registered before it exists: finishReference() waits for the writers before it uses it.
    pending_.add(head_.path);
    extracted_.add(head_.number, head_.path);
    writers_.add(parent_, destination_.keepOpen(), {name_, head_, tail, file_.releaseContent()});
    return {};
}

Status DiskSink::commit(const EntryTail& tail) {
    if (auto finished = file_.temporary().finish(tail); !finished) return finished;
    if (auto renamed = file_.temporary().rename(name_); !renamed) return renamed;
    // After the rename: only now does the path lead to the content.
    if (head_.type == EntryType::file) extracted_.add(head_.number, head_.path);
    return {};
}

Status DiskSink::keepIncomplete() {
    if (auto written = file_.writeOut(); !written) return written;
    if (auto finished = file_.temporary().finish({}); !finished) return finished;
    waitForPending();  // a writer may still create a file of this name
    for (int attempt = 0;; ++attempt) {
        const std::string name = incompleteName(name_, attempt);
        auto renamed = file_.temporary().renameIfFree(name);
        if (renamed) run_.warn({"the part that was read is kept as " + visibleText(name), 0, head_.path});
        if (renamed || renamed.error().code != EEXIST || attempt + 1 == maxIncompleteNames) return renamed;
    }
}

void DiskSink::waitForPending() {
    writers_.flush();
    pending_.clear();
}

void DiskSink::skipIfFailed(const Status& status) {
    if (status) return;
    run_.fail({status.error().text, status.error().code, head_.path});
    file_.discard();
    skipping_ = true;
}

}  // namespace tarnwick::qvx
