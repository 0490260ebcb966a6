// The order in which the entries of a path list are stored. Files that resemble each other come one after the other, so
// that they share blocks and leaders: archives of small files become up to a tenth smaller. The number of an entry is
// still its place in the list.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

// Entries of no kind come first, in the order of the list, so all directories do. Then the kinds follow, each in the
// order of the list. The same list gives the same order everywhere.
//
// A kind is an extension, without its digits, that at least `minKind` files have. Compressed files, by their extension,
// are of no kind. To gather files of one name, too, is worse: files of one folder resemble each other.
//
// Memory: if there are kinds, a second list, and 4 bytes for each entry.
class StoredOrder {
public:
    static constexpr unsigned minKind = 16;

    explicit StoredOrder(const PathList& list);

    // The entries in this order. May be the list itself.
    [[nodiscard]] const PathList& list() const { return numbers_.empty() ? listed_ : stored_; }

    // The place in the path list of the entry that comes at `position` here.
    [[nodiscard]] std::uint64_t number(std::uint64_t position) const {
        return numbers_.empty() ? position : numbers_[position];
    }

    // Of the entry that comes at `position` here. 0 for no kind.
    [[nodiscard]] std::uint32_t kind(std::uint64_t position) const;

private:
    struct Group {
        PathList list;
        std::vector<std::uint32_t> numbers;
    };

    void gather(std::map<std::uint32_t, Group>& groups);

    const PathList& listed_;
    PathList stored_;
    std::vector<std::uint32_t> numbers_;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> ends_;  // position after each kind, and the kind
};

}  // namespace tarnwick::qvx
