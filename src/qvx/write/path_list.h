// The files that go into an archive: paths in order, duplicates kept, each with what was seen when it was listed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/format/format.h"

namespace tarnwick::qvx {

// A list may have a million paths. They are therefore stored front-coded (each as its difference from the path before),
// in pieces. Coding restarts in each piece, and a piece is never moved when the list grows.
struct PathList {
    struct Entry {
        std::string path;  // absolute, without empty components, "." or ".."
        EntryType type = EntryType::file;
        dev_t device = 0;
        ino_t inode = 0;  // a hint: the name may belong to another file by now

        // The directory that contains the name. When it is known, the file is opened only in this directory, and no
        // link of another user is followed on the way (openDirectoryGuarded).
        dev_t folderDevice = 0;
        ino_t folderInode = 0;  // 0: not known

        [[nodiscard]] bool isGuarded() const { return folderInode != 0; }
        bool operator==(const Entry&) const = default;
    };

    void append(const Entry& entry);
    void append(const PathList& other);
    void append(PathList&& other);  // needs no more memory than `other` had, if both have the same devices
    [[nodiscard]] std::uint64_t size() const { return count_; }
    [[nodiscard]] std::string pathOf(std::uint64_t number) const;  // counted from 0

private:
    struct Piece {
        std::uint64_t first = 0;  // number of its first entry
        std::vector<std::uint8_t> coded;
    };

public:
    // Reads the entries in order. The list must not grow in the meantime.
    class Cursor {
    public:
        explicit Cursor(const PathList& list) : list_(list) {}

        // The next entry, valid until the next call; null at the end.
        const Entry* next();

    private:
        friend struct PathList;
        const PathList& list_;
        std::size_t piece_ = 0;
        std::size_t position_ = 0;
        Entry entry_;
    };

private:
    [[nodiscard]] std::uint64_t deviceNumber(dev_t device);

    std::vector<Piece> pieces_;
    Entry last_;
    std::vector<dev_t> devices_;
    std::uint64_t count_ = 0;
};

// `path`, relative to `directory` unless it is absolute, without empty components and ".". Nothing when an archive
// cannot contain the path. That includes a path with "..": the component before it may be a link, so it cannot be
// removed.
std::optional<std::string> normalPath(std::string_view directory, std::string_view path);

// The two parts of the path of a list entry: the folder, with a slash at its end, and the name in it. "/" has the name
// ".". An entry is opened in its folder, because the kernel refuses paths of more than 4095 bytes, and the whole path
// may have one more.
std::string_view folderOf(std::string_view listed);
const char* nameOf(const std::string& listed);

// Opens a directory for lookups only (O_PATH).
Result<FileDescriptor> openDirectory(const std::string& path);

// The file at `path`, relative to `directory` unless absolute. Fails when it does not exist or an archive cannot
// contain it.
Result<PathList::Entry> lookUp(std::string_view directory, std::string_view path);

// The same as a guarded entry. Fails also when the path leads through a link of another user.
Result<PathList::Entry> lookUpGuarded(std::string_view directory, std::string_view path);

// Nothing for a kind of file that an archive cannot contain (a FIFO, a socket, a device).
std::optional<EntryType> entryTypeOf(mode_t mode);

}  // namespace tarnwick::qvx
