// Turns the entries of a path list into the records of an archive stream.
#pragma once

#include <openssl/evp.h>
#include <sys/stat.h>

#include <array>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "platform/archive/block_stream.h"
#include "platform/archive/entry_metadata.h"
#include "platform/archive/path_list.h"

namespace tarnwick::qvx {

// The fields that an entry may carry; bit i is the i-th key of fieldKeys.
inline constexpr std::array<std::string_view, 14> fieldKeys = {"UID", "GID", "MOD", "FLG", "MTM", "CTM", "BTM",
                                                               "DAT", "SH2", "SLC", "CLC", "HLC", "XAT", "ACL"};
using FieldMask = std::uint32_t;

// Encodes one archive. Throws std::bad_alloc; statuses are 0 or a negative errno value.
class ArchiveEncoder {
public:
    ArchiveEncoder(BlockStream& stream, FieldMask fields);

    // Reads every entry of `list` from the disk and completes the archive, whose first block stands at `filePosition` of
    // the file.
    int write(const PathList& list, std::uint64_t filePosition);

private:
    // What is known of a file whose content stands in the archive, for the next time it is met.
    struct Stored {
        std::uint64_t number = 0;
        SparseSum sum;
        std::optional<Digest> digest;
        std::string path;
    };
    struct Inode {
        dev_t device = 0;
        ino_t number = 0;
        bool operator==(const Inode&) const = default;
    };
    struct InodeHash {
        std::size_t operator()(const Inode& inode) const noexcept {
            return std::hash<ino_t>()(inode.number) ^ (std::hash<dev_t>()(inode.device) << 1);
        }
    };
    struct Entry;

    int writeEntry(const PathList::Entry& listed);
    int writeFile(Entry& entry);
    int writeExtents(Entry& entry);
    int writeExtent(Entry& entry, std::uint64_t position, std::uint64_t length);
    int writeLinkTarget(Entry& entry);
    bool reuseContent(Entry& entry);
    void writeHole(Entry& entry, std::uint64_t length);
    void writeHead(Entry& entry);
    void writeTail(Entry& entry);
    void writeRecord(RecordType type, Bytes payload);
    void flushIndexPart();
    int complete(std::uint64_t filePosition);
    [[nodiscard]] bool wants(std::string_view key) const;

    BlockStream& stream_;
    const FieldMask fields_;
    MetadataReader metadata_;
    std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>> digest_;
    std::vector<std::uint8_t> payload_;
    std::unordered_map<Inode, Stored, InodeHash> stored_;
    struct timespec started_ {};
    IndexPartEncoder part_;
    ArchiveRoot root_;
};

}  // namespace tarnwick::qvx
