#include "qvx/write/archive_encoder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_reading.h"
#include "qvx/write/read_ahead.h"

namespace tarnwick::qvx {

namespace {

// Bytes of payload; bounds the memory for an index part. A part is longer only to cover the least count of entries.
constexpr std::size_t indexPartSize = 256 * 1024;
constexpr std::uint64_t maxUnsizedContent = 1048576;  // bytes, of a file whose size is reported as 0
constexpr std::uint32_t indexKind = 0xffffffff;       // kinds of files have 16 bits
constexpr std::size_t minDataSpace = 512;             // bytes; a block with less space left is padded

// A dying disk takes seconds for each read that fails, so the number of such reads is limited.
constexpr unsigned maxFailedReads = 256;  // for each file
constexpr std::uint64_t minStep = 4096;   // bytes skipped after a failed read; a power of two
constexpr std::uint64_t maxStep = 1048576;

}  // namespace

std::string reasonText(const IncompleteEntry& entry) {
    switch (entry.error) {
        case E2BIG: return "an archive cannot hold all of its extended attributes or access lists";
        case EOVERFLOW: return "an archive cannot hold its owner or one of its times";
        default: return std::strerror(entry.error);
    }
}

struct ArchiveEncoder::Entry {
    DiskEntry& source;
    EntryTail& tail = source.tail;
    RecordPlace place{};
    std::uint64_t lastBlock = 0;  // in which it ends
    std::uint64_t size = 0;
    std::uint64_t holes = 0;
    bool digested = false;  // the digest of the content is computed, or known
    bool stopped = false;   // no more is read: the file was shorter than its status said, or too many reads failed
    int contentError = 0;   // errno value of the first read that failed
    unsigned failedReads = 0;
    std::uint64_t step = minStep;      // bytes to skip after the next failed read
    std::vector<Extent> unreadable{};  // parts of the content
};

ArchiveEncoder::ArchiveEncoder(BlockStream& stream, FieldMask fields, unsigned readers, Unreadable unreadable,
                               EncodingReports reports)
    : stream_(stream),
      fields_(fields),
      storesContent_(fields & fieldBit("DAT")),
      storesReferences_(fields & fieldBit("CLC")),
      storesDigests_(fields & fieldBit("SH2")),
      readers_(readers),
      unreadable_(unreadable),
      reports_(std::move(reports)) {}

Status ArchiveEncoder::write(const PathList& list) {
    // The kernel sets change times by the coarse clock, so the start is read from it, too.
    ::clock_gettime(CLOCK_REALTIME_COARSE, &started_);
    list_ = &list;
    stored_.emplace(list);
    PathList::Cursor cursor(list);
    while (root_.entries < list.size()) {
        const PathList::Cursor start(cursor);
        stream_.pad();  // a block with the index of the section before must have no content
        if (Status written = writeSection(StoredOrder(cursor)); !written) return written;
        writeIndex(start);
    }
    return complete();
}

Status ArchiveEncoder::writeSection(const StoredOrder& section) {
    sectionStart_ = root_.entries;
    indexed_.resize(section.list().size());
    ReadAhead ahead(section.list(), readers_);
    for (std::uint64_t position = 0; DiskEntry* source = ahead.next(); ++position) {
        source->head.number = sectionStart_ + section.place(position);
        stream_.setKind(section.kind(position));
        if (Status written = writeEntry(*source); !written) return written;
        if (Status status = stream_.status(); !status) return status;
    }
    return {};
}

Status ArchiveEncoder::writeEntry(DiskEntry& source) {
    if (source.error != 0) return systemError(source.error, source.listed.path);
    if (reports_.entry) reports_.entry(source.listed.path);
    Entry entry{source};
    const bool reused = source.listed.type == EntryType::file && reuseContent(entry);
    entry.digested = !reused && announcesDigest(entry);
    writeHead(entry);
    if (source.listed.type == EntryType::file && !reused && storesContent_) {
        if (Status written = writeFile(entry); !written) return written;
    } else if (source.listed.type == EntryType::link) {
        writeContent(entry, source.content);
    }
    if (Status marked = markIncomplete(entry); !marked) return marked;
    writeTail(entry);
    return {};
}

void ArchiveEncoder::addSize(Entry& entry, std::uint64_t bytes) {
    entry.size += bytes;
    if (reports_.content) reports_.content(bytes);
}

bool ArchiveEncoder::announcesDigest(const Entry& entry) const {
    const bool link = entry.source.listed.type == EntryType::link && !entry.source.content.empty();
    const bool file = entry.source.listed.type == EntryType::file && storesContent_;
    return storesDigests_ && (file || link);
}

void ArchiveEncoder::writeHead(Entry& entry) {
    EntryHead& head = entry.source.head;
    head.digestAnnounced = entry.digested;
    removeOtherFields(fields_, head);
    payload_.clear();
    encodeEntryHead(head, payload_);
    // Readers find this record through the index and do not join it, so it must fit into one block.
    if (stream_.freeSpace().size() < recordHeaderSize + payload_.size()) stream_.pad();
    // After the padding: the index must name the block in which the record is.
    entry.place = {static_cast<std::uint32_t>(stream_.block()), static_cast<std::uint32_t>(stream_.offset())};
    writeRecord(RecordType::entry, payload_);
}

Status ArchiveEncoder::writeFile(Entry& entry) {
    DiskEntry& source = entry.source;
    if (source.file || source.unopened) {
        digest_.restart();
        if (Status written = writeExtents(entry); !written) return written;
        if (entry.digested) entry.tail.digest = digest_.finish();
    } else {
        writeContent(entry, source.content);
    }
    if (entry.holes > 0) entry.tail.totals = SparseTotals{entry.size, entry.holes};
    // Only an entry that is complete may serve for other entries.
    if (entry.size == source.status.stx_size && entry.contentError == 0 && source.unreadable == 0)
        stored_->add(source.listed.device, source.status.stx_ino, {source.head.number, entry.size});
    return {};
}

Status ArchiveEncoder::markIncomplete(Entry& entry) {
    const int error = entry.source.unreadable != 0 ? entry.source.unreadable : entry.contentError;
    if (error == 0) return {};
    const IncompleteEntry incomplete{entry.source.head.number, error};
    if (unreadable_ == Unreadable::fail) return Error{reasonText(incomplete), error, entry.source.listed.path};
    entry.tail.unreadable = std::move(entry.unreadable);
    incomplete_.push_back(incomplete);
    return {};
}

// A file is stored once, unless it was changed after the encoder started. Only the kernel sets the change time: if that
// is earlier than the start, the stored content is still right.
bool ArchiveEncoder::reuseContent(Entry& entry) {
    const DiskEntry& source = entry.source;
    if (!storesReferences_ || !changedBeforeStart(source.status)) return false;
    const auto stored = stored_->find(source.listed.device, source.status.stx_ino);
    if (!stored) return false;
    entry.tail.contentOf = stored->number;
    entry.tail.hardLink = list_->pathOf(stored->number) != source.listed.path;
    addSize(entry, stored->size);
    return true;
}

bool ArchiveEncoder::changedBeforeStart(const struct statx& status) const {
    constexpr std::int64_t timeResolution = 2;  // seconds: the resolution of file systems without fractions of a second
    const auto& changed = status.stx_ctime;
    if (changed.tv_nsec == 0) return changed.tv_sec + timeResolution < started_.tv_sec;
    return changed.tv_sec < started_.tv_sec ||
           (changed.tv_sec == started_.tv_sec && changed.tv_nsec < started_.tv_nsec);
}

// Begins a new block when the space left in this one is too small for a useful part of `content` bytes.
void ArchiveEncoder::reserveSpace(std::uint64_t content) {
    if (stream_.freeSpace().size() < std::min<std::uint64_t>(content, minDataSpace) + recordHeaderSize) stream_.pad();
}

void ArchiveEncoder::writeContent(Entry& entry, Bytes content) {
    addSize(entry, content.size());
    if (entry.digested) entry.tail.digest = entry.source.digest;
    while (!content.empty()) {
        reserveSpace(content.size());
        const Bytes part = content.first(std::min(content.size(), stream_.freeSpace().size() - recordHeaderSize));
        writeRecord(RecordType::data, part);
        content = content.subspan(part.size());
    }
}

Status ArchiveEncoder::writeExtents(Entry& entry) {
    const std::uint64_t size = entry.source.status.stx_size;
    if (entry.source.unopened) {
        entry.contentError = entry.source.unreadable;
        writeUnreadable(entry, size);
        return {};
    }
    // Pseudo file systems report size 0 for files that have content.
    if (size == 0) return writeExtent(entry, maxUnsizedContent);
    while (entry.size < size && !entry.stopped) {
        const auto next = nextExtent(entry);
        if (!next) return next.error();
        if (next->offset > entry.size) writeHole(entry, next->offset - entry.size);
        if (Status written = writeExtent(entry, next->end()); !written) return written;
    }
    return {};
}

// The next extent of data. It is empty when the rest of the file is a hole.
Result<Extent> ArchiveEncoder::nextExtent(const Entry& entry) {
    const std::uint64_t size = entry.source.status.stx_size;
    const Extent rest{entry.size, size - entry.size};
    // No block of the file is missing, so it has no hole.
    if (entry.source.status.stx_blocks * 512 >= size) return rest;
    const int file = entry.source.file.get();
    const off_t data = ::lseek(file, static_cast<off_t>(entry.size), SEEK_DATA);
    if (data < 0 && errno == ENXIO) return Extent{size, 0};
    if (data < 0 && !isUnreadable(errno)) return systemError(errno, entry.source.listed.path);
    if (data < 0) return rest;  // a file system that cannot report holes
    const off_t hole = ::lseek(file, data, SEEK_HOLE);
    const std::uint64_t begin = std::min(static_cast<std::uint64_t>(data), size);
    const std::uint64_t end = hole < 0 ? size : std::min(static_cast<std::uint64_t>(hole), size);
    return Extent{begin, end - begin};
}

void ArchiveEncoder::writeHole(Entry& entry, std::uint64_t length) {
    payload_.clear();
    WireWriter(payload_).varint(length);
    if (stream_.freeSpace().size() < recordHeaderSize + payload_.size()) stream_.pad();
    writeRecord(RecordType::hole, payload_);
    addSize(entry, length);
    ++entry.holes;
    if (entry.digested) entry.digested = digestedZeros_.add(length);
    if (entry.digested) digest_.addZeros(length);
}

// Reads directly into the block. If the file has become shorter since its status was read, the entry ends there. Bytes
// that were appended since then are not stored.
Status ArchiveEncoder::writeExtent(Entry& entry, std::uint64_t end) {
    while (entry.size < end && !entry.stopped) {
        reserveSpace(end - entry.size);
        const MutableBytes space = stream_.freeSpace().subspan(recordHeaderSize);
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(space.size(), end - entry.size));
        const auto count = readAt(entry.source.file.get(), space.first(length), entry.size);
        if (count) {
            appendPart(entry, space.first(*count));
        } else if (isUnreadable(count.error().code)) {
            skipUnreadable(entry, count.error().code, end);
        } else {
            return systemError(count.error().code, entry.source.listed.path);
        }
        if (Status status = stream_.status(); !status) return status;
    }
    return {};
}

void ArchiveEncoder::appendPart(Entry& entry, Bytes part) {
    entry.stopped = part.empty();
    if (entry.stopped) return;
    entry.step = minStep;
    addSize(entry, part.size());
    if (entry.digested) digest_.add(part);
    encodeRecordHeader({RecordType::data, false, static_cast<std::uint32_t>(part.size())}, stream_.freeSpace().data());
    stream_.commit(recordHeaderSize + part.size());
}

void ArchiveEncoder::skipUnreadable(Entry& entry, int error, std::uint64_t end) {
    if (entry.contentError == 0) entry.contentError = error;
    const std::uint64_t size = entry.source.status.stx_size;
    entry.stopped = size == 0 || ++entry.failedReads == maxFailedReads;
    // Each failed read in a row doubles the step, so that a large damaged area costs few reads.
    const std::uint64_t next = entry.size / minStep * minStep + entry.step;
    writeUnreadable(entry, entry.stopped ? size : std::min(next, end));
    entry.step = std::min(entry.step * 2, maxStep);
}

// Writes nothing when the content is that long already, as for a file whose size is reported as 0.
void ArchiveEncoder::writeUnreadable(Entry& entry, std::uint64_t end) {
    if (end <= entry.size) return;
    const Extent extent{entry.size, end - entry.size};
    if (!entry.unreadable.empty() && entry.unreadable.back().end() == extent.offset) {
        entry.unreadable.back().length += extent.length;
    } else {
        entry.unreadable.push_back(extent);
    }
    writeHole(entry, extent.length);
}

void ArchiveEncoder::writeTail(Entry& entry) {
    // Readers need the totals of a content with holes.
    removeOtherFields(entry.holes > 0 ? fields_ | fieldBit("SLC") : fields_, entry.tail);
    payload_.clear();
    encodeEntryTail(entry.tail, payload_);
    entry.lastBlock = writeRecord(RecordType::end, payload_);
    keepForIndex(entry);
    ++root_.entries;
}

void ArchiveEncoder::keepForIndex(const Entry& entry) {
    const EntryHead& head = entry.source.head;
    Indexed& kept = indexed_[head.number - sectionStart_];
    kept.block = entry.place.block;
    kept.offset = entry.place.offset;
    kept.span = static_cast<std::uint32_t>(entry.lastBlock - entry.place.block);
    kept.type = head.type;
    kept.mode = head.mode.value_or(0);
    kept.userId = head.userId.value_or(0);
    kept.groupId = head.groupId.value_or(0);
    kept.size = entry.size;
    kept.incomplete = entry.tail.unreadable.has_value();
    constexpr std::int64_t second = 1'000'000'000;
    // Rounded down, also for times before 1970.
    const std::int64_t modified = head.modified.value_or(0);
    kept.modifiedSeconds = modified / second - (modified % second < 0 ? 1 : 0);
}

// A payload that does not fit continues in the next block. Returns the block of the last part.
std::uint64_t ArchiveEncoder::writeRecord(RecordType type, Bytes payload) {
    std::uint64_t block = 0;
    do {
        if (stream_.freeSpace().size() <= recordHeaderSize) stream_.pad();
        const std::size_t length = std::min(stream_.freeSpace().size() - recordHeaderSize, payload.size());
        std::array<std::uint8_t, recordHeaderSize> header{};
        encodeRecordHeader({type, length < payload.size(), static_cast<std::uint32_t>(length)}, header.data());
        std::copy(header.begin(), header.end(), stream_.freeSpace().begin());
        std::copy_n(payload.begin(), length, stream_.freeSpace().begin() + recordHeaderSize);
        block = stream_.block();  // before commit(), which ends a block that is full
        stream_.commit(recordHeaderSize + length);
        payload = payload.subspan(length);
    } while (!payload.empty());
    return block;
}

// All parts of a section are together, so that a reader over a network needs few requests. They begin a block, and are
// a kind: otherwise a reader of the index would have to open a block of content, and the leader of that. If fewer than
// 128 entries are left, the next part covers them.
void ArchiveEncoder::writeIndex(PathList::Cursor section) {
    if (stream_.block() > 0) stream_.pad();  // a small archive keeps its single block
    stream_.setKind(indexKind);
    IndexEntry entry;
    for (const Indexed& kept : indexed_) {
        entry = {kept.block,     kept.offset, kept.span,    kept.type, section.next()->path.substr(1),
                 kept.mode,      kept.userId, kept.groupId, kept.size, kept.modifiedSeconds,
                 kept.incomplete};
        part_.add(entry);
        if (part_.size() >= indexPartSize && part_.count() >= minIndexPartEntries) writeIndexPart();
    }
    if (part_.count() >= minIndexPartEntries) writeIndexPart();
}

void ArchiveEncoder::writeIndexPart() {
    const auto first = static_cast<std::uint32_t>(writtenIndex_);
    writtenIndex_ += part_.count();
    payload_.clear();
    part_.finish(payload_);
    if (stream_.freeSpace().size() <= recordHeaderSize) stream_.pad();
    // After the padding, which may begin a new block.
    root_.parts.push_back(
        {first, static_cast<std::uint32_t>(stream_.block()), static_cast<std::uint32_t>(stream_.offset())});
    writeRecord(RecordType::index, payload_);
}

Status ArchiveEncoder::complete() {
    std::ranges::sort(incomplete_, {}, &IncompleteEntry::number);
    if (part_.count() > 0) writeIndexPart();
    stream_.pad();
    // The root lists the sealed lengths of all blocks before it, so they must be written first.
    if (Status drained = stream_.drain(); !drained) return drained;
    // The root must not need a leader: a reader that starts at the trailer has none yet.
    stream_.stopUsingLeaders();
    root_.sealedLengths = stream_.sealedLengths();
    Trailer trailer{0, stream_.block(), root_.entries, 0};
    for (const auto length : root_.sealedLengths) trailer.rootPosition += blockHeaderSize + length;
    payload_.clear();
    encodeRoot(root_, payload_);
    writeRecord(RecordType::root, payload_);
    stream_.pad();
    trailer.blocks = stream_.block() + 1;
    std::array<std::uint8_t, recordHeaderSize + trailerSize> last{};
    encodeRecordHeader({RecordType::trailer, false, trailerSize}, last.data());
    std::ranges::copy(encodeTrailer(trailer), last.begin() + recordHeaderSize);
    return stream_.finish(last);
}

}  // namespace tarnwick::qvx
