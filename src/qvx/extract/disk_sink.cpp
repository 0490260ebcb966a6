#include "qvx/extract/disk_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "qvx/extract/inode_flags.h"
#include "qvx/read/incomplete_text.h"

namespace tarnwick::qvx {

namespace {

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
    deferred_.finish(destination_);
}

Status DiskSink::beginEntry() {
    // A writer thread may still have to create an earlier file whose path is this one, or is above or below it. That
    // file must not be created after this entry.
    if (pending_.conflictWith(head_.path)) waitForPending();
    const auto parent = destination_.makeParent(head_.path);
    if (!parent) return parent.error();
    parent_ = *parent;
    file_.begin(parent_, head_);
    if (head_.type != EntryType::directory) return {};
    auto charged = run_.charge(ExtractionRun::minCharge);
    return charged ? createDirectory(parent_, name_) : charged;
}

Status DiskSink::finishEntry(const EntryTail& tail, const ContentReader& content) {
    if (head_.type == EntryType::directory) return deferred_.addDirectory(head_, tail);
    if (head_.type == EntryType::link) return finishLink(tail);
    if (tail.contentOf) return finishReference(tail, content);
    return file_.isInMemory() && !restoresFlags() ? submitToWriters(tail) : commit(tail);
}

Status DiskSink::finishLink(const EntryTail& tail) {
    if (linkTarget_.empty()) return Error{"the link has no target"};
    // symlink(2) would end the target at the zero byte.
    if (linkTarget_.find('\0') != std::string::npos) return Error{"the target of the link is malformed"};
    if (auto made = file_.temporary().createLink(parent_, head_, linkTarget_); !made) return made;
    return commit(tail);
}

// The content is in an earlier entry, which may also be another name of the same file.
Status DiskSink::finishReference(const EntryTail& tail, const ContentReader& content) {
    waitForPending();  // the file with the content may still be in the queue
    const auto source = extracted_.find(*tail.contentOf);
    // The archive contains this path twice. To write the same file again would change nothing.
    if (source && source->path == head_.path && extracted_.isInPlace(*source, head_)) return {};
    if (tail.hardLink && source && extracted_.link(*source, parent_, head_, file_.temporary()))
        return file_.temporary().rename(name_);
    if (auto copied = copyContent(source, tail, content); !copied || run_.interrupted()) return copied;
    return commit(tail);
}

Status DiskSink::copyContent(const std::optional<ExtractedFile>& source, const EntryTail& tail,
                             const ContentReader& content) {
    TemporaryFile& file = file_.temporary();
    // From the file that was extracted earlier, so that its blocks need not be opened again.
    if (source) {
        if (auto made = file.create(parent_, head_); !made) return made;
        if (extracted_.copy(*source, tail, file) || run_.interrupted()) return {};
    }
    // From the archive, into a new file: what was copied above is incomplete or wrong.
    if (auto made = file.create(parent_, head_); !made) return made;
    FileSink sink(run_, file);
    const Status read = content(sink);
    if (read || run_.interrupted()) return {};
    return sink.written() ? read : sink.written();
}

Status DiskSink::submitToWriters(const EntryTail& tail) {
    pending_.add(head_.path);
    writers_.add({parent_, destination_.keepOpen(), name_, head_, tail, file_.releaseContent()});
    return {};
}

Status DiskSink::commit(const EntryTail& tail) {
    TemporaryFile& file = file_.temporary();
    if (auto written = file_.writeOut(); !written) return written;
    if (auto finished = file.finish(tail); !finished) return finished;
    if (auto renamed = file.rename(name_); !renamed) return renamed;
    if (head_.type != EntryType::file) return {};
    if (restoresFlags())
        if (auto added = deferred_.addFlags(head_, file.identity()); !added) return added;
    // Other entries refer only to one that has its own content.
    return tail.contentOf ? Status() : extracted_.add(head_.number, {head_.path, file.identity()});
}

bool DiskSink::restoresFlags() const { return run_.preserves() && hasInodeFlags(head_); }

Status DiskSink::keepIncomplete() {
    TemporaryFile& file = file_.temporary();
    if (auto written = file_.writeOut(); !written) return written;
    if (auto finished = file.finishPart(); !finished) return finished;
    if (auto added = deferred_.addKept(head_, file.name()); !added) return added;
    file.release();
    return {};
}

void DiskSink::waitForPending() {
    for (const auto& [number, file] : writers_.flush())
        if (const auto added = extracted_.add(number, file); !added)
            run_.fail({added.error().text, added.error().code, file.path});
    pending_.clear();
}

void DiskSink::skipIfFailed(const Status& status) {
    if (status) return;
    run_.fail({status.error().text, status.error().code, head_.path});
    file_.discard();
    skipping_ = true;
}

}  // namespace tarnwick::qvx
