// A place for each of many entries, found by the number of the entry.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace tarnwick::qvx {

// Memory: 12 bytes for each entry, also while it grows, and less than 1 MiB. The numbers come in any order, each once.
class EntryPlaces {
public:
    void add(std::uint64_t number, std::uint64_t place);
    [[nodiscard]] std::optional<std::uint64_t> find(std::uint64_t number) const;

private:
    // The place is in halves: the alignment of 64 bits would cost 4 bytes.
    struct Item {
        std::uint32_t number;
        std::uint32_t placeLow;
        std::uint32_t placeHigh;
    };
    static_assert(sizeof(Item) == 12);
    using Run = std::deque<Item>;  // ascending by number; frees its front while it is merged into another

    static Run merge(Run first, Run second);

    std::map<std::uint32_t, std::uint64_t> recent_;
    std::vector<Run> runs_;  // each at least twice as long as the next
};

}  // namespace tarnwick::qvx
