// Encodes the entries of a path list as the records of an archive.
#pragma once

#include <sys/stat.h>

#include <array>
#include <functional>
#include <optional>
#include <string_view>

#include "qvx/format/field_table.h"
#include "qvx/format/index_codec.h"
#include "qvx/write/block_stream.h"
#include "qvx/write/disk_entry.h"
#include "qvx/write/path_list.h"
#include "qvx/write/stored_contents.h"
#include "qvx/write/stored_order.h"

namespace tarnwick::qvx {

struct IncompleteEntry {
    std::uint64_t number = 0;  // in the path list, from 0
    int error = 0;  // the errno value of a failure; E2BIG and EOVERFLOW if an archive cannot have its metadata
};

// For people: what is wrong with the entry.
std::string reasonText(const IncompleteEntry& entry);

// A file that cannot be read or stored in full is marked as incomplete, or ends the archive with a failure.
enum class Unreadable { mark, fail };

// What is called while entries are encoded, by the thread that encodes; either may be empty.
struct EncodingReports {
    std::function<void(const std::string& path)> entry = nullptr;  // begins
    std::function<void(std::uint64_t bytes)> content = nullptr;    // so many more, holes included
};

// Encodes one archive. Memory: a section of StoredOrder, its list again and 40 bytes for each of its entries. Throws
// std::bad_alloc and std::system_error.
class ArchiveEncoder {
public:
    // `readers` threads read from the disk.
    ArchiveEncoder(BlockStream& stream, FieldMask fields, unsigned readers, Unreadable unreadable,
                   EncodingReports reports = {});

    // Reads every entry of `list` from the disk and writes all blocks. The subject of an error is the file that caused
    // it, if a file did.
    Status write(const PathList& list);

    // The entries that were marked as incomplete, in ascending order.
    [[nodiscard]] std::vector<IncompleteEntry>& incomplete() { return incomplete_; }

private:
    struct Entry;

    // What the index has of an entry, apart from its path. It is kept until all entries of the section are stored,
    // because the index has them in the order of the list.
    struct Indexed {
        std::uint64_t size = 0;
        std::int64_t modifiedSeconds = 0;
        std::uint32_t block = 0;
        std::uint32_t offset = 0;
        std::uint32_t span = 0;
        std::uint32_t userId = 0;
        std::uint32_t groupId = 0;
        std::uint16_t mode = 0;
        EntryType type = EntryType::file;
        bool incomplete = false;
    };

    Status writeSection(const StoredOrder& section);
    Status writeEntry(DiskEntry& source);
    Status writeFile(Entry& entry);
    Status writeExtents(Entry& entry);
    [[nodiscard]] bool announcesDigest(const Entry& entry) const;
    static Result<Extent> nextExtent(const Entry& entry);
    Status writeExtent(Entry& entry, std::uint64_t end);
    void appendPart(Entry& entry, Bytes part);
    void skipUnreadable(Entry& entry, int error, std::uint64_t end);
    void writeUnreadable(Entry& entry, std::uint64_t end);
    Status markIncomplete(Entry& entry);
    bool reuseContent(Entry& entry);
    void writeContent(Entry& entry, Bytes content);
    void writeHole(Entry& entry, std::uint64_t length);
    void addSize(Entry& entry, std::uint64_t bytes);
    void writeHead(Entry& entry);
    void writeTail(Entry& entry);
    std::uint64_t writeRecord(RecordType type, Bytes payload);
    void reserveSpace(std::uint64_t content);
    void keepForIndex(const Entry& entry);
    void writeIndex(PathList::Cursor section);
    void writeIndexPart();
    Status complete();
    [[nodiscard]] bool changedBeforeStart(const struct statx& status) const;

    BlockStream& stream_;
    const FieldMask fields_;
    const bool storesContent_;
    const bool storesReferences_;  // to an earlier entry with the same content
    const bool storesDigests_;
    const unsigned readers_;
    const Unreadable unreadable_;
    const EncodingReports reports_;
    const PathList* list_ = nullptr;
    std::optional<StoredContents> stored_;
    ContentDigest digest_;
    DigestedZeros digestedZeros_;
    std::vector<std::uint8_t> payload_;
    struct timespec started_ {};
    std::uint64_t sectionStart_ = 0;  // number of its first entry
    std::vector<Indexed> indexed_;    // of the section, by number
    IndexPartEncoder part_;
    std::uint64_t writtenIndex_ = 0;  // entries of the parts before
    ArchiveRoot root_;
    std::vector<IncompleteEntry> incomplete_;
};

}  // namespace tarnwick::qvx
