#include "qvx/extract/disk_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/visible_text.h"
#include "qvx/read/incomplete_text.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t copyBufferSize = 1048576;
constexpr std::size_t maxNameLength = 255;
constexpr std::size_t maxPendingPaths = 4096;          // paths
constexpr std::size_t maxAttributeMemory = 64U << 20;  // bytes of memory for the attributes of directories

FileDescriptor openRegular(int directory, const std::string& name) {
    FileDescriptor file(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) return {};
    return file;
}

// Passes the content of an open file to `sink`, holes as holes. False at an error and when the sink stops.
bool readFile(int file, EntrySink& sink) {
    const off_t size = lseek(file, 0, SEEK_END);
    std::vector<std::uint8_t> buffer(copyBufferSize);
    for (off_t at = 0; at < size;) {
        const off_t seek = lseek(file, at, SEEK_DATA);
        const off_t begin = seek >= 0 ? seek : errno == ENXIO ? size : at;
        if (begin > at && !sink.hole(static_cast<std::uint64_t>(begin - at))) return false;
        const off_t seekEnd = begin < size ? lseek(file, begin, SEEK_HOLE) : size;
        const off_t end = seekEnd >= 0 ? seekEnd : size;
        for (at = begin; at < end;) {
            const auto want = std::min(buffer.size(), static_cast<std::size_t>(end - at));
            const ssize_t got = pread(file, buffer.data(), want, at);
            if (got <= 0 || !sink.data(Bytes(buffer).first(static_cast<std::size_t>(got)))) return false;
            at += got;
        }
    }
    return size >= 0;
}

// Computes the digest of a content and passes the content on if there is a next sink.
class DigestingSink : public EntrySink {
public:
    DigestingSink(const ExtractionRun& run, TemporaryFile* file) : run_(run), file_(file) {}
    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes bytes) override {
        digest_.add(bytes);
        failed_ = file_ && !file_->data(bytes);
        return !failed_ && !run_.interrupted();
    }
    bool hole(std::uint64_t length) override {
        digest_.addZeros(length);
        return !run_.interrupted() && (!file_ || file_->hole(length));
    }
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}
    Digest digest() { return digest_.finish(); }
    [[nodiscard]] bool failed() const { return failed_; }  // writing the file failed

private:
    const ExtractionRun& run_;
    TemporaryFile* file_;
    ContentDigest digest_;
    bool failed_ = false;
};

bool holds(const ExtractionRun& run, int file, const EntryTail& tail) {
    DigestingSink sink(run, nullptr);
    return tail.digest && readFile(file, sink) && sink.digest() == *tail.digest;
}

}  // namespace

void ExtractedPaths::add(std::uint64_t number, std::string_view path) {
    text_ += path;
    places_.push_back({number, text_.size()});
}

std::optional<std::string_view> ExtractedPaths::find(std::uint64_t number) const {
    const auto found = std::lower_bound(places_.begin(), places_.end(), number,
                                        [](const Place& place, std::uint64_t key) { return place.number < key; });
    if (found == places_.end() || found->number != number) return std::nullopt;
    const std::size_t begin = found == places_.begin() ? 0 : std::prev(found)->end;
    return std::string_view(text_).substr(begin, found->end - begin);
}

bool DiskSink::begin(const EntryHead& head) {
    head_ = head;
    linkTarget_.clear();
    content_.clear();
    name_ = Destination::nameOf(head.path);
    skipping_ = head.path.empty();  // the destination itself
    if (skipping_) return !run_.interrupted();
    settleAround(head.path);
    parent_ = destination_.parentOf(head.path, true);
    if (parent_ < 0) {
        failWithErrno();
    } else if (head.type == EntryType::directory) {
        makeDirectory();
    }
    return !run_.interrupted();
}

bool DiskSink::data(Bytes bytes) {
    if (head_.type == EntryType::link) {
        linkTarget_.append(bytes.begin(), bytes.end());
    } else if (!skipping_ && !keepInMemory(bytes) && openTemporary() && !temporary_.data(bytes)) {
        fail(temporary_.what());
    }
    return !run_.interrupted();
}

bool DiskSink::hole(std::uint64_t length) {
    if (!skipping_ && openTemporary()) temporary_.hole(length);
    return !run_.interrupted();
}

bool DiskSink::finish(const EntryTail& tail, const ContentReader& content) {
    if (skipping_) return !run_.interrupted();
    if (tail.unreadable) reportIncomplete(tail);
    switch (head_.type) {
        case EntryType::directory: finishDirectory(tail); break;
        case EntryType::link: finishLink(tail); break;
        case EntryType::file: finishFile(tail, content); break;
    }
    return !run_.interrupted();
}

void DiskSink::abandon() {
    if (run_.keepsIncomplete() && !content_.empty()) openTemporary();
    if (run_.keepsIncomplete() && temporary_.exists() && temporary_.finish({})) {
        settle();  // a writer may still create a file of this name
        constexpr std::string_view suffix = ".incomplete";
        const std::string stem = name_.substr(0, maxNameLength - suffix.size() - 4) + std::string(suffix);
        std::string name = stem;
        for (int i = 1; i < 1000 && !temporary_.rename(name, false) && errno == EEXIST; ++i)
            name = stem + '.' + std::to_string(i);
        if (!temporary_.exists()) run_.warn({"what there is of it is kept as " + visibleText(name), 0, head_.path});
    }
    temporary_.drop();
}

void DiskSink::finishDirectories() {
    temporary_.drop();  // the file of an entry that was begun when the reading ended
    settle();
    // Backwards, so that a directory comes after those in it: its own mode may forbid access to them.
    for (auto directory = directories_.rbegin(); directory != directories_.rend(); ++directory) {
        const std::string name = Destination::nameOf(directory->first);
        const int parent = destination_.parentOf(directory->first, false);
        struct stat status {};
        // A later entry of the same path may have replaced the directory.
        if (parent >= 0 && fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(status.st_mode) && fchdir(parent) == 0)
            restoreDirectory(run_, name, directory->second.head, directory->second.tail);
    }
}

// Writers may finish files in any order, unless two entries have the same path or one path is a folder of the other.
void DiskSink::settleAround(std::string_view path) {
    const std::string inside = std::string(path) + '/';
    const auto below = handedOver_.lower_bound(inside);
    bool meets = handedOver_.size() >= maxPendingPaths || handedOver_.contains(path) ||
                 (below != handedOver_.end() && below->starts_with(inside));
    // Files in the folder of the last one cannot conflict with a folder above it: that was checked then.
    for (auto folder = Destination::parentPathOf(path); !meets && !folder.empty() && folder != lastFolder_;
         folder = Destination::parentPathOf(folder))
        meets = handedOver_.contains(folder);
    if (meets) settle();
}

void DiskSink::settle() {
    writers_.settle();
    handedOver_.clear();
}

void DiskSink::makeDirectory() {
    const auto make = [this] { return mkdirat(parent_, name_.c_str(), 0700) == 0; };
    if (make()) return;
    struct stat status {};
    if (errno == EEXIST && fstatat(parent_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(status.st_mode)) return;
        if (unlinkat(parent_, name_.c_str(), 0) == 0 && make()) return;
    }
    failWithErrno();
}

// False when the content has become too long to be kept in memory.
bool DiskSink::keepInMemory(Bytes bytes) {
    if (temporary_.exists() || content_.size() + bytes.size() > FileWriters::maxFileSize) return false;
    content_.insert(content_.end(), bytes.begin(), bytes.end());
    return true;
}

// Also writes to it the content that was kept in memory.
bool DiskSink::openTemporary() {
    if (temporary_.exists()) return true;
    if (!temporary_.create(parent_, head_, nullptr) || !temporary_.data(content_)) fail(temporary_.what());
    content_.clear();
    return temporary_.exists();
}

// When an earlier entry holds the content, or is the same inode, the file extracted from it is copied or linked, if its
// content still has the digest of this entry. Otherwise the content is read from the archive once more.
void DiskSink::finishFile(const EntryTail& tail, const ContentReader& content) {
    if (!tail.contentOf && !temporary_.exists()) return handToWriters(tail);
    if (tail.contentOf) settle();
    const auto linked = tail.linkOf ? extracted_.find(*tail.linkOf) : std::nullopt;
    const auto source = tail.contentOf ? extracted_.find(*tail.contentOf) : std::nullopt;
    if (source && *source == head_.path && alreadyThere(tail)) {
        extracted_.add(head_.number, head_.path);
        return;
    }
    const bool done = (linked && linkTo(*linked, tail)) || (source && copyFrom(*source, tail));
    if (skipping_ || run_.interrupted()) return;
    if (!done && tail.contentOf) {
        temporary_.drop();
        DigestingSink sink(run_, &temporary_);
        if (!openTemporary()) return;
        const bool written = content(sink);
        if (run_.interrupted()) return;
        if (!written) return fail(sink.failed() ? temporary_.what() : "its content cannot be read");
    }
    if (!openTemporary()) return;
    commit(tail);
}

// The metadata of a directory is remembered until the end, in limited memory.
void DiskSink::finishDirectory(const EntryTail& tail) {
    const std::size_t size = extrasSize(tail);
    const bool bearable = size <= maxAttributeMemory - remembered_;
    directories_[head_.path] = {head_, bearable ? tail : EntryTail{}};
    if (bearable) {
        remembered_ += size;
    } else {
        fail("attributes and access control lists are not restored: there are too many");
    }
}

void DiskSink::handToWriters(const EntryTail& tail) {
    handedOver_.insert(head_.path);
    extracted_.add(head_.number, head_.path);
    lastFolder_ = Destination::parentPathOf(head_.path);
    writers_.put(parent_, destination_.holder(), {name_, head_, tail, std::move(content_)});
}

void DiskSink::reportIncomplete(const EntryTail& tail) { run_.fail({incompleteText(head_.type, tail), 0, head_.path}); }

void DiskSink::finishLink(const EntryTail& tail) {
    if (linkTarget_.empty()) return fail("the link has no target");
    if (linkTarget_.find('\0') != std::string::npos) return fail("the target of the link is malformed");
    if (!temporary_.create(parent_, head_, &linkTarget_)) return fail(temporary_.what());
    commit(tail);
}

FileDescriptor DiskSink::openExtracted(std::string_view path) {
    const int directory = sources_.parentOf(path, false);
    return directory >= 0 ? openRegular(directory, Destination::nameOf(path)) : FileDescriptor();
}

bool DiskSink::linkTo(std::string_view path, const EntryTail& tail) {
    const FileDescriptor file = openExtracted(path);
    return file && holds(run_, file.get(), tail) && temporary_.link(parent_, file.get());
}

// When a path is listed twice, writing the same file again would change nothing.
bool DiskSink::alreadyThere(const EntryTail& tail) {
    const FileDescriptor file = openRegular(parent_, name_);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || !head_.mode || !head_.modified) return false;
    const std::int64_t modified = status.st_mtim.tv_sec * 1000000000LL + status.st_mtim.tv_nsec;
    return (status.st_mode & 07777) == *head_.mode && modified == *head_.modified && holds(run_, file.get(), tail);
}

bool DiskSink::copyFrom(std::string_view path, const EntryTail& tail) {
    const FileDescriptor file = openExtracted(path);
    if (!file || !tail.digest || !openTemporary()) return false;
    DigestingSink sink(run_, &temporary_);
    return readFile(file.get(), sink) && sink.digest() == *tail.digest;
}

void DiskSink::commit(const EntryTail& tail) {
    const bool alone = !temporary_.isLink();
    if ((alone && !temporary_.finish(tail)) || !temporary_.rename(name_, true)) return fail(temporary_.what());
    if (head_.type == EntryType::file) extracted_.add(head_.number, head_.path);
}

void DiskSink::fail(const std::string& why) {
    run_.fail({why, 0, head_.path});
    temporary_.drop();
    content_.clear();
    skipping_ = true;
}

void DiskSink::failWithErrno() {
    const bool link = errno == ELOOP || errno == ENOTDIR;
    fail(link ? "something that is no directory is in the way" : std::strerror(errno));
}

}  // namespace tarnwick::qvx
