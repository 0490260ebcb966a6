// The order in which the entries of a path list are stored. Files that resemble each other come one after the other, so
// that they share blocks and leaders: archives of small files become up to a tenth smaller. The number of an entry is
// still its place in the list. A list is ordered in sections, so that the memory needed does not grow with it.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

// The order of one section. Entries of no kind come first, in the order of the list. Then the kinds follow, each in the
// order of the list. The same list gives the same order everywhere, and entries with the same path keep their order.
//
// A kind is an extension, without its digits, that at least `minKind` entries of the section have, and no directory.
// Compressed files, by their extension, are of no kind. To gather files of one name, too, is worse: files of one folder
// resemble each other.
class StoredOrder {
public:
    static constexpr std::size_t maxSection = 65536;   // entries
    static constexpr std::size_t maxPaths = 16 << 20;  // bytes: paths in another order have less in common
    static constexpr unsigned minKind = 16;

    // Reads the next entries: `maxSection`, or fewer if their paths are long or the list ends.
    explicit StoredOrder(PathList::Cursor& listed);

    // The entries of the section in this order.
    [[nodiscard]] const PathList& list() const { return stored_; }

    // The place in the section, from 0, that the path list gives to the entry at `position` here.
    [[nodiscard]] std::uint32_t place(std::uint64_t position) const { return places_[position]; }

    // Of the entry that comes at `position` here. 0 for no kind.
    [[nodiscard]] std::uint32_t kind(std::uint64_t position) const;

private:
    struct Group {
        PathList list;
        std::vector<std::uint32_t> places;
    };

    void gather(std::map<std::uint32_t, Group>& groups);

    PathList stored_;
    std::vector<std::uint32_t> places_;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> ends_;  // position after each kind, and the kind
};

}  // namespace tarnwick::qvx
