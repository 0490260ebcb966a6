// The entries of an archive as a tree of directories, from its index, with what a file system says of each.
#pragma once

#include <cstdint>
#include <deque>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/read/entry_content.h"

namespace tarnwick::qvx {

// Memory: about 100 bytes for each entry, and its name. Entries come by number. Of several with one path, the last one
// counts, as after an extraction. A directory that the archive does not list is made up.
class EntryTree {
public:
    using NodeId = std::uint32_t;  // ascending in the order in which the paths come first
    static constexpr NodeId root = 1;
    static constexpr NodeId none = 0;

    struct Node {
        const char* name = "";  // ends with a zero byte
        std::uint64_t size = 0;
        std::int64_t modified = 0;  // seconds
        std::uint32_t number = 0;   // of the entry; of a directory that is made up: undefined
        std::uint32_t userId = 0;
        std::uint32_t groupId = 0;
        NodeId parent = none;
        NodeId next = none;       // in the ring of the children of the parent
        NodeId lastChild = none;  // its `next` is the first child
        std::uint16_t mode = 0;   // 0777: a set-id bit has no meaning where nothing is executed
        EntryType type = EntryType::directory;
        std::uint8_t nameLength = 0;

        [[nodiscard]] std::string_view nameText() const { return {name, nameLength}; }
    };

    EntryTree();

    // Leaves out an entry that is below something that is no directory, one that would replace a directory with
    // something in it, and one with a name that the kernel does not accept; see leftOut().
    void add(const IndexEntry& entry, std::uint64_t number);
    [[nodiscard]] std::uint64_t leftOut() const { return leftOut_; }  // count of entries

    [[nodiscard]] const Node& at(NodeId id) const { return nodes_[id]; }
    [[nodiscard]] NodeId find(NodeId parent, std::string_view name) const;
    [[nodiscard]] NodeId firstChild(NodeId directory) const;
    [[nodiscard]] NodeId nextSibling(NodeId id) const;
    [[nodiscard]] std::string pathOf(NodeId id) const;

    // Where an entry is, also one that is not in the tree.
    [[nodiscard]] std::optional<EntryLocation> locate(std::uint64_t number) const;

private:
    struct NumberedLocation {  // a damaged part of the index leaves a gap
        std::uint32_t number = 0;
        EntryLocation location;
    };

    [[nodiscard]] NodeId makePath(std::string_view path);
    [[nodiscard]] NodeId makeDirectory(NodeId parent, std::string_view name);
    NodeId append(NodeId parent, std::string_view name);
    [[nodiscard]] std::size_t slotOf(NodeId parent, std::string_view name) const;
    void grow();

    std::deque<Node> nodes_;
    std::pmr::monotonic_buffer_resource names_;
    std::vector<NodeId> slots_;               // open addressing, at least one in four is free
    std::deque<NumberedLocation> locations_;  // ascending
    const std::uint64_t hashKey_;             // random, so that an archive cannot contain names that collide
    std::uint64_t madeUp_ = 0;
    std::uint64_t leftOut_ = 0;
};

}  // namespace tarnwick::qvx
