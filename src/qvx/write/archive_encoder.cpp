#include "qvx/write/archive_encoder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qvx/write/read_ahead.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t indexPartSize = 256 * 1024;  // bytes of payload; bounds the memory for an index part
constexpr std::uint64_t unsizedContent = 1048576;  // bytes; read at most from a file whose size is reported as 0
constexpr std::size_t minDataRoom = 512;           // bytes; a block with less room left is padded

// A dying disk takes seconds for each read that fails, so the number of such reads is limited.
constexpr unsigned maxFailedReads = 256;  // for each file
constexpr std::uint64_t minStep = 4096;   // bytes skipped after a failed read; a power of two
constexpr std::uint64_t maxStep = 1048576;

}  // namespace

struct ArchiveEncoder::Entry {
    DiskEntry& found;
    EntryTail& tail = found.tail;
    IndexEntry place{};
    std::uint64_t size = 0;
    std::uint64_t holes = 0;
    std::uint64_t zeros = 0;  // bytes in the holes
    bool ended = false;    // the file was shorter than its status said, or reading was given up after too many failures
    int contentError = 0;  // negative errno value of the first read that failed
    unsigned failedReads = 0;
    std::uint64_t step = minStep;      // bytes to skip after the next failed read
    std::vector<Extent> unreadable{};  // parts of the content
};

ArchiveEncoder::ArchiveEncoder(BlockStream& stream, FieldMask fields, unsigned readers)
    : stream_(stream),
      fields_(fields),
      storesContent_(fields & fieldBit("DAT")),
      storesReferences_(fields & fieldBit("CLC")),
      readers_(readers) {}

int ArchiveEncoder::write(const PathList& list, std::uint64_t filePosition) {
    // The kernel stamps files with the coarse clock, so only its time can be compared with change times.
    ::clock_gettime(CLOCK_REALTIME_COARSE, &started_);
    list_ = &list;
    stored_.emplace(list);
    ReadAhead ahead(list, readers_);
    while (DiskEntry* found = ahead.next()) {
        if (const int status = writeEntry(*found)) return status;
        if (const int status = stream_.error()) return status;
    }
    return complete(filePosition);
}

int ArchiveEncoder::writeEntry(DiskEntry& found) {
    if (found.error != 0) return found.error;
    Entry entry{found};
    writeHead(entry);
    if (found.listed.type == EntryType::file) {
        if (const int status = writeFile(entry)) return status;
    } else if (found.listed.type == EntryType::link) {
        writeContent(entry, found.content);
        if (entry.size > 0) entry.tail.digest = found.digest;
    }
    markIncomplete(entry);
    writeTail(entry);
    return 0;
}

void ArchiveEncoder::writeHead(Entry& entry) {
    EntryHead& head = entry.found.head;
    head.number = root_.entries;
    removeOtherFields(fields_, head);
    payload_.clear();
    encodeEntryHead(head, payload_);
    if (stream_.room().size() < recordHeaderSize + payload_.size()) stream_.pad();
    entry.place.block = stream_.block();
    entry.place.offset = stream_.offset();
    writeRecord(RecordType::entry, payload_);
}

int ArchiveEncoder::writeFile(Entry& entry) {
    DiskEntry& found = entry.found;
    if (reuseContent(entry) || !storesContent_) return 0;
    Digest digest = found.digest;
    if (found.file || found.unopened) {
        digest_.restart();
        if (const int status = writeExtents(entry)) return status;
        digest = digest_.finish();
    } else {
        writeContent(entry, found.content);
    }
    if (entry.zeros <= maxDigestedHoles) entry.tail.digest = digest;
    if (entry.holes > 0) entry.tail.totals = SparseTotals{entry.size, entry.holes};
    if (entry.size == found.status.stx_size && entry.contentError == 0)
        stored_->add(found.listed.device, found.status.stx_ino, found.head.number);
    return 0;
}

void ArchiveEncoder::markIncomplete(Entry& entry) {
    const int error = entry.found.unreadable != 0 ? entry.found.unreadable : entry.contentError;
    if (error == 0) return;
    entry.tail.unreadable = std::move(entry.unreadable);
    incomplete_.push_back({root_.entries, -error});
}

// A file is not stored twice, unless it was changed after writing began. Only the kernel sets the change time: if it is
// older than the start of this run, the content is still the one that was stored.
bool ArchiveEncoder::reuseContent(Entry& entry) {
    const DiskEntry& found = entry.found;
    if (!storesReferences_ || !isOld(found.status)) return false;
    const auto number = stored_->find(found.listed.device, found.status.stx_ino);
    if (!number) return false;
    entry.tail.contentOf = number;
    if (list_->pathOf(*number) != found.listed.path) entry.tail.linkOf = number;
    entry.size = found.status.stx_size;
    return true;
}

bool ArchiveEncoder::isOld(const struct statx& status) const {
    constexpr std::int64_t timeResolution = 2;  // seconds: the resolution of file systems without fractions of a second
    const auto& changed = status.stx_ctime;
    if (changed.tv_nsec == 0) return changed.tv_sec + timeResolution < started_.tv_sec;
    return changed.tv_sec < started_.tv_sec ||
           (changed.tv_sec == started_.tv_sec && changed.tv_nsec < started_.tv_nsec);
}

// Begins a new block when the room left in this one is too small for a useful part of `content` bytes.
void ArchiveEncoder::makeRoom(std::uint64_t content) {
    if (stream_.room().size() < std::min<std::uint64_t>(content, minDataRoom) + recordHeaderSize) stream_.pad();
}

void ArchiveEncoder::writeContent(Entry& entry, Bytes content) {
    entry.size = content.size();
    while (!content.empty()) {
        makeRoom(content.size());
        const Bytes part = content.first(std::min(content.size(), stream_.room().size() - recordHeaderSize));
        writeRecord(RecordType::data, part);
        content = content.subspan(part.size());
    }
}

int ArchiveEncoder::writeExtents(Entry& entry) {
    const int file = entry.found.file.get();
    const std::uint64_t size = entry.found.status.stx_size;
    if (entry.found.unopened) {
        entry.contentError = entry.found.unreadable;
        writeUnreadable(entry, size);
        return 0;
    }
    // Pseudo file systems report size 0 for files that have content.
    if (size == 0) return writeExtent(entry, unsizedContent);
    const bool sparse = entry.found.status.stx_blocks * 512 < size;
    while (entry.size < size && !entry.ended) {
        std::uint64_t begin = entry.size;
        std::uint64_t end = size;
        if (sparse) {
            const off_t data = ::lseek(file, static_cast<off_t>(entry.size), SEEK_DATA);
            if (data < 0 && !isUnreadable(-errno)) return -errno;
            const off_t hole = data < 0 ? data : ::lseek(file, data, SEEK_HOLE);
            // ENXIO means that the rest is a hole. A file system that cannot report holes is read as one extent.
            if (data < 0 && errno == ENXIO) begin = size;
            if (data >= 0) begin = std::min(static_cast<std::uint64_t>(data), size);
            if (hole >= 0) end = std::min(static_cast<std::uint64_t>(hole), size);
        }
        if (begin > entry.size) writeHole(entry, begin - entry.size);
        if (const int status = writeExtent(entry, end)) return status;
    }
    return 0;
}

void ArchiveEncoder::writeHole(Entry& entry, std::uint64_t length) {
    payload_.clear();
    WireWriter(payload_).varint(length);
    if (stream_.room().size() < recordHeaderSize + payload_.size()) stream_.pad();
    writeRecord(RecordType::hole, payload_);
    entry.size += length;
    entry.zeros += length;
    ++entry.holes;
    // Any user can make a file that is one hole of exabytes; its digest would never be finished.
    if (entry.zeros <= maxDigestedHoles) digest_.addZeros(length);
}

// Reads directly into the block. When the file has become shorter, the missing rest is left out; what was appended
// since its status was read is ignored.
int ArchiveEncoder::writeExtent(Entry& entry, std::uint64_t end) {
    while (entry.size < end && !entry.ended) {
        makeRoom(end - entry.size);
        const MutableBytes room = stream_.room().subspan(recordHeaderSize);
        const auto part = room.first(static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), end - entry.size)));
        const std::int64_t count = readAt(entry.found.file.get(), part, entry.size);
        if (count >= 0) {
            takePart(entry, part.first(static_cast<std::size_t>(count)));
        } else if (isUnreadable(static_cast<int>(count))) {
            skipUnreadable(entry, static_cast<int>(count), end);
        } else {
            return static_cast<int>(count);
        }
        if (const int status = stream_.error()) return status;
    }
    return 0;
}

void ArchiveEncoder::takePart(Entry& entry, Bytes part) {
    entry.ended = part.empty();
    if (entry.ended) return;
    entry.step = minStep;
    entry.size += part.size();
    digest_.add(part);
    encodeRecordHeader({RecordType::data, false, static_cast<std::uint32_t>(part.size())}, stream_.room().data());
    stream_.commit(recordHeaderSize + part.size());
}

void ArchiveEncoder::skipUnreadable(Entry& entry, int error, std::uint64_t end) {
    if (entry.contentError == 0) entry.contentError = error;
    const std::uint64_t size = entry.found.status.stx_size;
    entry.ended = size == 0 || ++entry.failedReads == maxFailedReads;
    // Each failed read in a row doubles the step, so that a large damaged area costs few reads.
    const std::uint64_t next = entry.size / minStep * minStep + entry.step;
    writeUnreadable(entry, entry.ended ? size : std::min(next, end));
    entry.step = std::min(entry.step * 2, maxStep);
}

// Writes nothing when `end` is not past what is written, as for a file whose size is reported as 0.
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
    EntryHead& head = entry.found.head;
    removeOtherFields(fields_, entry.tail);
    payload_.clear();
    encodeEntryTail(entry.tail, payload_);
    writeRecord(RecordType::end, payload_);

    entry.place.type = head.type;
    entry.place.path = std::move(head.path);
    entry.place.mode = head.mode.value_or(0);
    entry.place.userId = head.userId.value_or(0);
    entry.place.groupId = head.groupId.value_or(0);
    entry.place.size = entry.size;
    entry.place.incomplete = entry.tail.unreadable.has_value();
    constexpr std::int64_t second = 1'000'000'000;
    // Rounded down, also for times before 1970.
    const std::int64_t modified = head.modified.value_or(0);
    entry.place.modifiedSeconds = modified / second - (modified % second < 0 ? 1 : 0);
    part_.add(entry.place);
    ++root_.entries;
    if (part_.size() >= indexPartSize) flushIndexPart();
}

// A payload that does not fit continues in the next block.
void ArchiveEncoder::writeRecord(RecordType type, Bytes payload) {
    do {
        if (stream_.room().size() <= recordHeaderSize) stream_.pad();
        const std::size_t length = std::min(stream_.room().size() - recordHeaderSize, payload.size());
        std::array<std::uint8_t, recordHeaderSize> header{};
        encodeRecordHeader({type, length < payload.size(), static_cast<std::uint32_t>(length)}, header.data());
        std::copy(header.begin(), header.end(), stream_.room().begin());
        std::copy_n(payload.begin(), length, stream_.room().begin() + recordHeaderSize);
        stream_.commit(recordHeaderSize + length);
        payload = payload.subspan(length);
    } while (!payload.empty());
}

void ArchiveEncoder::flushIndexPart() {
    if (part_.count() == 0) return;
    const std::uint64_t first = root_.entries - part_.count();
    payload_.clear();
    part_.finish(payload_);
    if (stream_.room().size() <= recordHeaderSize) stream_.pad();
    root_.parts.push_back({first, stream_.block(), stream_.offset()});
    writeRecord(RecordType::index, payload_);
}

int ArchiveEncoder::complete(std::uint64_t filePosition) {
    flushIndexPart();
    stream_.pad();
    // The root lists the sealed lengths of all blocks before it, so they must be written first.
    if (const int status = stream_.drain()) return status;
    // The root must not need a leader: a reader that starts at the trailer has none yet.
    stream_.standAlone();
    root_.sealedLengths = stream_.sealedLengths();
    Trailer trailer{filePosition, stream_.block(), root_.entries, 0};
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
