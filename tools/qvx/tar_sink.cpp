#include "tar_sink.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

#include "qvx/read/incomplete_text.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t tarBlock = 512;
constexpr std::size_t holePiece = std::size_t{1} << 30;
constexpr std::int64_t nanosecondsPerSecond = 1000000000;

using Header = std::unique_ptr<archive_entry, FreeWith<archive_entry_free>>;

using SetTime = void (*)(archive_entry*, time_t, long);

// libarchive writes the digits of both numbers, so that the fraction of -1.5 must be positive. It cannot write -0.5.
void setTime(archive_entry* header, SetTime set, const std::optional<std::int64_t>& time) {
    if (!time) return;
    const std::int64_t seconds = *time / nanosecondsPerSecond;
    const std::int64_t rest = *time % nanosecondsPerSecond;
    set(header, seconds, seconds == 0 && rest < 0 ? 0 : std::abs(rest));
}

// The first = ends the keyword of which the name is a part. GNU tar decodes these from version 1.35 on.
std::string attributeName(const std::string& name) {
    if (name.find('=') == std::string::npos) return name;
    std::string text;
    for (const char c : name) text += c == '=' ? "%3D" : c == '%' ? "%25" : std::string(1, c);
    return text;
}

int tagOf(AccessRule::Kind kind) {
    using enum AccessRule::Kind;
    switch (kind) {
        case owner: return ARCHIVE_ENTRY_ACL_USER_OBJ;
        case user: return ARCHIVE_ENTRY_ACL_USER;
        case owningGroup: return ARCHIVE_ENTRY_ACL_GROUP_OBJ;
        case group: return ARCHIVE_ENTRY_ACL_GROUP;
        case mask: return ARCHIVE_ENTRY_ACL_MASK;
        case others: break;
    }
    return ARCHIVE_ENTRY_ACL_OTHER;
}

// The permissions have the same bits. libarchive has an int for each user and group; the kernel has larger ones.
// Whether the header can have the list.
bool addList(archive_entry* header, int type, const AccessList& list) {
    const auto fits = [](const AccessRule& rule) { return rule.id <= std::numeric_limits<int>::max(); };
    if (!std::ranges::all_of(list, fits)) return false;
    for (const AccessRule& rule : list)
        archive_entry_acl_add_entry(header, type, rule.permissions, tagOf(rule.kind), static_cast<int>(rule.id),
                                    nullptr);
    return true;
}

unsigned fileType(EntryType type) {
    return type == EntryType::directory ? AE_IFDIR : type == EntryType::link ? AE_IFLNK : AE_IFREG;
}

// As extraction does: if the archive has no owner, it is the user, and without a mode nobody else has access.
Header newHeader(const EntryHead& head) {
    Header owner(archive_entry_new());
    archive_entry* header = owner.get();
    if (!header) throw std::bad_alloc();
    archive_entry_set_pathname(header, head.path.empty() ? "." : head.path.c_str());
    archive_entry_set_filetype(header, fileType(head.type));
    archive_entry_set_perm(header, head.mode.value_or(head.type == EntryType::file ? 0600 : 0700));
    archive_entry_set_uid(header, head.userId.value_or(geteuid()));
    archive_entry_set_gid(header, head.groupId.value_or(getegid()));
    archive_entry_set_fflags(header, head.flags.value_or(0), 0);
    setTime(header, archive_entry_set_mtime, head.modified);
    setTime(header, archive_entry_set_ctime, head.changed);
    return owner;
}

// Whether the header can have all of it.
bool addTail(archive_entry* header, const EntryTail& tail) {
    if (tail.attributes)
        for (const auto& [name, value] : *tail.attributes)
            archive_entry_xattr_add_entry(header, attributeName(name).c_str(), value.data(), value.size());
    return !tail.accessLists || (addList(header, ARCHIVE_ENTRY_ACL_TYPE_ACCESS, tail.accessLists->access) &&
                                 addList(header, ARCHIVE_ENTRY_ACL_TYPE_DEFAULT, tail.accessLists->defaultList));
}

void addSize(archive_entry* header, const SpooledContent& content) {
    archive_entry_set_size(header, static_cast<la_int64_t>(content.size()));
    if (!content.isSparse()) return;
    for (const Extent& extent : content.data())
        archive_entry_sparse_add_entry(header, static_cast<la_int64_t>(extent.offset),
                                       static_cast<la_int64_t>(extent.length));
    if (content.data().empty()) archive_entry_sparse_add_entry(header, 0, 0);
}

// Address space only: libarchive counts the bytes of a hole, and does not read them.
const void* holeBytes() {
    static void* const bytes = mmap(nullptr, holePiece, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (bytes == MAP_FAILED) throw std::bad_alloc();
    return bytes;
}

// In the C locale, libarchive marks each name that is not ASCII as binary, which GNU tar reports. Not for the whole
// program, because patterns match bytes.
class Utf8Names {
public:
    Utf8Names() : before_(uselocale(utf8())) {}
    ~Utf8Names() { uselocale(before_); }
    Utf8Names(const Utf8Names&) = delete;
    Utf8Names& operator=(const Utf8Names&) = delete;

private:
    static locale_t utf8() {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale;
    }

    locale_t before_;
};

// `allowed` are the bytes that may still be written.
la_ssize_t writeOut(archive* stream, void* allowed, const void* bytes, std::size_t length) {
    auto& left = *static_cast<std::uint64_t*>(allowed);
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, length));
    left -= count;
    if (std::fwrite(bytes, 1, count, stdout) == count) return static_cast<la_ssize_t>(length);
    archive_set_error(stream, errno, "standard output");
    return ARCHIVE_FATAL;
}

}  // namespace

void TarSink::Free::operator()(archive* stream) const noexcept { archive_write_free(stream); }

TarSink::TarSink() : stream_(archive_write_new()), allowed_(std::numeric_limits<std::uint64_t>::max()) {
    archive* stream = stream_.get();
    if (!stream) throw std::bad_alloc();
    archive_write_set_format_pax(stream);
    // Its other form of attributes is one that GNU tar does not know, and reports.
    archive_write_set_format_option(stream, "pax", "xattrheader", "SCHILY");
    archive_write_set_bytes_per_block(stream, 0);  // standard output has a buffer
    archive_write_open(stream, &allowed_, nullptr, writeOut, nullptr);
}

TarSink::~TarSink() { cut(); }

bool TarSink::begin(const EntryHead& head) {
    head_ = head;
    content_.restart();
    return true;
}

bool TarSink::finish(const EntryTail& tail, const ContentReader& content) {
    if (tail.unreadable) report(escapedName(entryName(head_.path)) + ": " + incompleteText(head_.type, tail));
    incomplete_ = incomplete_ || tail.unreadable;
    return accept(writeEntry(tail, content));
}

Status TarSink::close() {
    closed_ = archive_write_close(stream_.get()) == ARCHIVE_OK;
    return closed_ ? Status() : failure();
}

// The first block of an extended header says that more follows.
void TarSink::cut() {
    if (std::exchange(closed_, true)) return;
    if (!inEntry_) {
        allowed_ = tarBlock;
        EntryHead head;
        head.modified = 1;  // a nanosecond needs such a header
        const Header header = newHeader(head);
        static_cast<void>(writeHeader(header.get()));
    }
    archive_write_fail(stream_.get());
}

bool TarSink::accept(const Status& status) {
    if (status) return true;
    if (status_) status_ = Error{status.error().text, status.error().code, entryName(head_.path)};
    return false;
}

Status TarSink::writeEntry(const EntryTail& tail, const ContentReader& content) {
    if (head_.type == EntryType::link && content_.size() == 0) return {};  // its target could not be captured
    const auto source = tail.contentOf ? paths_.find(*tail.contentOf) : std::nullopt;
    if (source == head_.path) return {};  // the archive has the file twice, and tar would link it to itself
    const bool links = tail.hardLink && source;
    if (tail.contentOf && !links)
        if (Status read = content(*this); !read) return status_ ? read : status_;
    const Header header = newHeader(head_);
    addMetadata(header.get(), tail);
    if (links) archive_entry_set_hardlink(header.get(), source->c_str());
    Status written = links ? Status() : addContent(header.get());
    if (written) written = writeHeader(header.get());
    if (written && !links) written = writeContent();
    if (!written) return written;
    if (archive_write_finish_entry(stream_.get()) != ARCHIVE_OK) return failure();
    inEntry_ = false;
    if (head_.type == EntryType::directory) return {};
    // Other links to an entry that is not in the stream can be links to this one.
    return paths_.add(tail.hardLink && !links ? *tail.contentOf : head_.number, head_.path);
}

void TarSink::addMetadata(archive_entry* header, const EntryTail& tail) {
    if (addTail(header, tail)) return;
    incomplete_ = true;
    report(escapedName(entryName(head_.path)) + ": its access list has a number that tar cannot have; left out");
}

Status TarSink::addContent(archive_entry* header) {
    if (head_.type == EntryType::file) addSize(header, content_);
    if (head_.type != EntryType::link) return {};
    std::string target;
    const auto append = [&](Bytes bytes) { return target.append(bytes.begin(), bytes.end()), Status(); };
    Status read = content_.read(append, [](std::uint64_t) { return Status(); });
    archive_entry_set_symlink(header, target.c_str());
    return read;
}

Status TarSink::writeContent() {
    if (head_.type != EntryType::file) return {};
    return content_.read([this](Bytes bytes) { return writeData(bytes); },
                         [this](std::uint64_t length) { return writeHole(length); });
}

Status TarSink::writeHeader(archive_entry* header) {
    const Utf8Names names;
    inEntry_ = true;
    // A warning is about a name that is not UTF-8: its bytes are written.
    return archive_write_header(stream_.get(), header) >= ARCHIVE_WARN ? Status() : failure();
}

Status TarSink::writeHole(std::uint64_t length) {
    for (std::uint64_t piece = 0; length > 0; length -= piece) {
        piece = std::min<std::uint64_t>(length, holePiece);
        if (Status written = writeData({static_cast<const std::uint8_t*>(holeBytes()), piece}); !written)
            return written;
    }
    return {};
}

Status TarSink::writeData(Bytes bytes) {
    const la_ssize_t written = archive_write_data(stream_.get(), bytes.data(), bytes.size());
    return written == static_cast<la_ssize_t>(bytes.size()) ? Status() : failure();
}

Error TarSink::failure() const {
    const char* text = archive_error_string(stream_.get());
    return {text ? text : "the tar stream cannot be written", archive_errno(stream_.get())};
}

}  // namespace tarnwick::qvx
