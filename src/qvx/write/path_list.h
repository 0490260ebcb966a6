// What goes into an archive: paths in order, duplicates kept, each with what was seen when it was listed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

// A list may hold a million paths. So they are held front-coded (each says how much of the path before it it shares),
// in pieces that begin anew, and that are never moved when the list grows.
struct PathList {
    struct Entry {
        std::string path;  // absolute, without empty components, "." or ".."
        EntryType type = EntryType::file;
        dev_t device = 0;
        ino_t inode = 0;  // a hint: the name may have been given to another file since

        // The directory that holds the name. When it is known, the file is read from this directory only, and no link
        // of another user is followed on the way (openDirectoryGuarded).
        dev_t folderDevice = 0;
        ino_t folderInode = 0;  // 0: not known

        [[nodiscard]] bool isGuarded() const { return folderInode != 0; }
    };

    void append(const Entry& entry);
    void append(const PathList& other);
    [[nodiscard]] std::uint64_t size() const { return count_; }
    [[nodiscard]] std::string pathOf(std::uint64_t number) const;  // counted from 0

private:
    struct Piece {
        std::uint64_t first = 0;  // number of its first entry
        std::vector<std::uint8_t> coded;
    };

public:
    // Gives the entries in order. The list must not grow meanwhile.
    class Walk {
    public:
        explicit Walk(const PathList& list) : list_(list) {}

        // The next entry, until the next call; null at the end.
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

// `path`, taken relative to `directory`, with empty components and "." left out; nothing when it cannot stand in an
// archive, as with a "..", which cannot be left out without knowing what is a link.
std::optional<std::string> normalPath(std::string_view directory, std::string_view path);

// What is at `path`, taken relative to `directory`; nothing where that cannot go into an archive, or is not there.
std::optional<PathList::Entry> lookUp(std::string_view directory, std::string_view path);

// The same, as a guarded entry; nothing as well where a link of another user would have to be followed.
std::optional<PathList::Entry> lookUpGuarded(std::string_view directory, std::string_view path);

// Nothing for what an archive does not hold (a FIFO, a socket, a device).
std::optional<EntryType> entryTypeOf(mode_t mode);

}  // namespace tarnwick::qvx
