// Which files the archive already contains, so that a file that is listed twice, or has two hard links, is stored once.
//
// Memory: 2 bytes for each entry of the list (4 during construction), and 24 to 48 bytes for each file that may be
// listed again: those whose inode is listed twice, and a few others whose hash is equal.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

class StoredContents {
public:
    explicit StoredContents(const PathList& list);

    struct Content {
        std::uint64_t number = 0;  // of the entry that has it
        std::uint64_t size = 0;
    };

    // The content of this file, if it is stored.
    [[nodiscard]] std::optional<Content> find(dev_t device, ino_t inode) const;

    // Records what has the content of this file. May ignore a file that is listed only once.
    void add(dev_t device, ino_t inode, const Content& content);

private:
    struct Slot {
        std::uint64_t inode = 0;
        std::uint32_t device = 0;
        std::uint32_t number = none;
        std::uint64_t size = 0;
    };
    static constexpr std::uint32_t none = 0xffffffff;

    [[nodiscard]] std::size_t place(std::uint32_t device, std::uint64_t inode) const;
    void grow();

    std::vector<bool> repeated_;  // by hash of device and inode: listed more than once
    std::vector<Slot> slots_;     // open addressing; at most three in four are used
    std::size_t used_ = 0;
};

}  // namespace tarnwick::qvx
