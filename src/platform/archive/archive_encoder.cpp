#include "platform/archive/archive_encoder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/archive/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t indexPartSize = 256 * 1024;  // of a part's payload; bounds the memory that the index takes
constexpr std::uint64_t unsizedContent = 1048576;  // read at most from a file that says it is empty
constexpr std::size_t leastData = 512;             // a shorter rest of a block is padded rather than filled

FileDescriptor openListed(const PathList::Entry& listed) {
    const int kind = listed.type == EntryType::directory ? O_DIRECTORY : O_NONBLOCK | O_NOCTTY;
    const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | kind;
    FileDescriptor file(::open(listed.path.c_str(), flags | O_NOATIME));
    if (!file && errno == EPERM) file = FileDescriptor(::open(listed.path.c_str(), flags));
    return file;
}

// A name may have been given to something else since it was listed. Another file of the same kind on the same device
// is what a rotated log looks like, and is taken; anything else is not what was asked for. The look comes before the
// opening, so that no device is ever opened, and again behind it.
int expectListed(const PathList::Entry& listed, const struct stat& status) {
    return entryTypeOf(status.st_mode) == listed.type && status.st_dev == listed.device ? 0 : -ESTALE;
}

bool isBefore(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

}  // namespace

struct ArchiveEncoder::Entry {
    const PathList::Entry* listed = nullptr;
    FileDescriptor file;  // none for a symbolic link
    struct stat status {};
    EntryHead head;
    EntryTail tail;
    IndexEntry place;
    std::uint64_t size = 0;
    std::uint64_t holes = 0;
    bool ended = false;  // the file turned out shorter than it said
};

ArchiveEncoder::ArchiveEncoder(BlockStream& stream, FieldMask fields)
    : stream_(stream), fields_(fields), digest_(EVP_MD_CTX_new()) {
    if (!digest_) throw std::bad_alloc();
}

int ArchiveEncoder::write(const PathList& list, std::uint64_t filePosition) {
    // The coarse clock, because it is the one that stamps files.
    ::clock_gettime(CLOCK_REALTIME_COARSE, &started_);
    PathList::Walk walk(list);
    while (const PathList::Entry* listed = walk.next()) {
        if (const int status = writeEntry(*listed)) return status;
        if (const int status = stream_.error()) return status;
    }
    return complete(filePosition);
}

bool ArchiveEncoder::wants(std::string_view key) const {
    const auto found = std::find(fieldKeys.begin(), fieldKeys.end(), key);
    return fields_ >> (found - fieldKeys.begin()) & 1;
}

int ArchiveEncoder::writeEntry(const PathList::Entry& listed) {
    Entry entry;
    entry.listed = &listed;
    if (::lstat(listed.path.c_str(), &entry.status) != 0) return -errno;
    if (const int status = expectListed(listed, entry.status)) return status;
    if (listed.type != EntryType::link) {
        entry.file = openListed(listed);
        if (!entry.file || ::fstat(entry.file.get(), &entry.status) != 0) return -errno;
        if (const int status = expectListed(listed, entry.status)) return status;
    }
    entry.head.number = root_.entries;
    entry.head.type = listed.type;
    entry.head.path = listed.path.substr(1);
    if (const int status =
            metadata_.read(listed.path, entry.file.get(), entry.status, entry.head, entry.tail))
        return status;
    writeHead(entry);
    int status = 0;
    if (listed.type == EntryType::file) status = writeFile(entry);
    if (listed.type == EntryType::link) status = writeLinkTarget(entry);
    if (status != 0) return status;
    writeTail(entry);
    return 0;
}

void ArchiveEncoder::writeHead(Entry& entry) {
    if (!wants("UID")) entry.head.userId.reset();
    if (!wants("GID")) entry.head.groupId.reset();
    if (!wants("MOD")) entry.head.mode.reset();
    if (!wants("FLG")) entry.head.flags.reset();
    if (!wants("MTM")) entry.head.modified.reset();
    if (!wants("CTM")) entry.head.changed.reset();
    if (!wants("BTM")) entry.head.born.reset();
    payload_.clear();
    encodeEntryHead(entry.head, payload_);
    if (stream_.room().size() < recordHeaderSize + payload_.size()) stream_.pad();
    entry.place.block = stream_.block();
    entry.place.offset = stream_.offset();
    writeRecord(RecordType::entry, payload_);
}

int ArchiveEncoder::writeFile(Entry& entry) {
    if (reuseContent(entry)) return 0;
    if (EVP_DigestInit_ex2(digest_.get(), EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
    if (const int status = writeExtents(entry)) return status;
    Digest digest{};
    if (EVP_DigestFinal_ex(digest_.get(), digest.data(), nullptr) != 1) throw std::bad_alloc();
    if (wants("SH2")) entry.tail.digest = digest;
    if (wants("SLC")) entry.tail.sum = SparseSum{entry.size, entry.holes};
    if (entry.size > 0)
        stored_.try_emplace({entry.status.st_dev, entry.status.st_ino},
                            Stored{entry.head.number, {entry.size, entry.holes}, entry.tail.digest, entry.listed->path});
    return 0;
}

// A file that stands in the archive already is not stored again, unless it was changed since writing began: the change
// time is the kernel's own, and older than the first reading only if nothing happened in between.
bool ArchiveEncoder::reuseContent(Entry& entry) {
    if (!wants("CLC")) return false;
    const auto found = stored_.find({entry.status.st_dev, entry.status.st_ino});
    if (found == stored_.end() || !isBefore(entry.status.st_ctim, started_)) return false;
    const Stored& stored = found->second;
    entry.tail.contentOf = stored.number;
    if (wants("HLC") && stored.path != entry.listed->path) entry.tail.linkOf = stored.number;
    entry.tail.digest = stored.digest;
    if (wants("SLC")) entry.tail.sum = stored.sum;
    entry.size = stored.sum.size;
    return true;
}

int ArchiveEncoder::writeExtents(Entry& entry) {
    const int file = entry.file.get();
    const auto size = static_cast<std::uint64_t>(entry.status.st_size);
    // Pseudo file systems say 0 of files that hold something.
    if (size == 0) return writeExtent(entry, 0, unsizedContent);
    const bool sparse = static_cast<std::uint64_t>(entry.status.st_blocks) * 512 < size;
    while (entry.size < size && !entry.ended) {
        std::uint64_t begin = entry.size;
        std::uint64_t end = size;
        if (sparse) {
            const off_t data = ::lseek(file, static_cast<off_t>(entry.size), SEEK_DATA);
            if (data < 0 && errno != ENXIO && errno != EINVAL) return -errno;
            const off_t hole = data < 0 ? data : ::lseek(file, data, SEEK_HOLE);
            // None left means that the rest is a hole; a file system that cannot tell is read as it is.
            if (data < 0 && errno == ENXIO) begin = size;
            if (data >= 0) begin = std::min(static_cast<std::uint64_t>(data), size);
            if (hole >= 0) end = std::min(static_cast<std::uint64_t>(hole), size);
        }
        if (begin > entry.size) writeHole(entry, begin - entry.size);
        if (const int status = writeExtent(entry, begin, end - begin)) return status;
    }
    return 0;
}

void ArchiveEncoder::writeHole(Entry& entry, std::uint64_t length) {
    static constexpr std::array<std::uint8_t, 65536> zeros{};
    std::vector<std::uint8_t> coded;
    WireWriter(coded).varint(length);
    if (stream_.room().size() < recordHeaderSize + coded.size()) stream_.pad();
    writeRecord(RecordType::hole, coded);
    entry.size += length;
    ++entry.holes;
    for (std::uint64_t left = length; left > 0; left -= std::min<std::uint64_t>(left, zeros.size()))
        EVP_DigestUpdate(digest_.get(), zeros.data(), std::min<std::uint64_t>(left, zeros.size()));
}

// Reads straight into the block. What the file no longer holds is left out; what it has gained is not looked at.
int ArchiveEncoder::writeExtent(Entry& entry, std::uint64_t position, std::uint64_t length) {
    while (length > 0) {
        if (stream_.room().size() < std::min<std::uint64_t>(length, leastData) + recordHeaderSize) stream_.pad();
        const MutableBytes room = stream_.room().subspan(recordHeaderSize);
        const ssize_t count = ::pread(entry.file.get(), room.data(), std::min<std::uint64_t>(room.size(), length),
                                      static_cast<off_t>(position));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -errno;
        if (count == 0) {
            entry.ended = true;
            return 0;
        }
        const auto taken = static_cast<std::size_t>(count);
        EVP_DigestUpdate(digest_.get(), room.data(), taken);
        encodeRecordHeader({RecordType::data, false, static_cast<std::uint32_t>(taken)}, stream_.room().data());
        stream_.commit(recordHeaderSize + taken);
        entry.size += taken;
        position += taken;
        length -= taken;
        if (const int status = stream_.error()) return status;
    }
    return 0;
}

int ArchiveEncoder::writeLinkTarget(Entry& entry) {
    std::vector<std::uint8_t> target(maxPathLength + 1);
    const ssize_t length =
        ::readlink(entry.listed->path.c_str(), reinterpret_cast<char*>(target.data()), target.size());
    if (length < 0) return -errno;
    target.resize(static_cast<std::size_t>(length));
    if (stream_.room().size() < recordHeaderSize + target.size()) stream_.pad();
    writeRecord(RecordType::data, target);
    entry.size = target.size();
    return 0;
}

void ArchiveEncoder::writeTail(Entry& entry) {
    if (!wants("XAT")) entry.tail.attributes.reset();
    if (!wants("ACL")) entry.tail.accessLists.reset();
    payload_.clear();
    encodeEntryTail(entry.tail, payload_);
    writeRecord(RecordType::end, payload_);

    entry.place.type = entry.head.type;
    entry.place.path = std::move(entry.head.path);
    entry.place.mode = entry.head.mode.value_or(0);
    entry.place.userId = entry.head.userId.value_or(0);
    entry.place.groupId = entry.head.groupId.value_or(0);
    entry.place.size = entry.size;
    constexpr std::int64_t second = 1'000'000'000;
    const std::int64_t modified = entry.head.modified.value_or(0);
    entry.place.modifiedSeconds = modified / second - (modified % second < 0 ? 1 : 0);
    part_.add(entry.place);
    ++root_.entries;
    if (part_.size() >= indexPartSize) flushIndexPart();
}

// A payload that does not fit goes on in the next block.
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
    if (const int status = stream_.drain()) return status;
    // Whoever begins to read at the end knows of no leader yet.
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
