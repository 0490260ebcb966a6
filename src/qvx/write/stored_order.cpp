#include "qvx/write/stored_order.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t buckets = 65536;

// A block of compressed files only would be stored as it is. Among other files, repetitions of them are found.
constexpr std::array<std::string_view, 6> compressed{"bz2", "gz", "lz4", "xz", "zip", "zst"};

// A hash (FNV-1a) of the extension without its digits; 0 for none, and for a compressed file. Files whose hashes are
// equal by accident only compress a little worse.
std::uint16_t extensionOf(const PathList::Entry& entry) {
    const std::string_view name = nameOf(entry.path);
    const auto dot = name.rfind('.');
    if (entry.type != EntryType::file || dot == std::string_view::npos || dot == 0) return 0;
    const std::string_view extension = name.substr(dot + 1);
    if (std::ranges::find(compressed, extension) != compressed.end()) return 0;
    std::uint32_t hash = 2166136261;
    for (const char byte : extension)
        if (byte < '0' || byte > '9') hash = (hash ^ static_cast<std::uint8_t>(byte)) * 16777619;
    return static_cast<std::uint16_t>(hash ^ (hash >> 16));
}

// Counted up to the least size of a kind.
std::vector<std::uint8_t> countExtensions(const PathList& list) {
    std::vector<std::uint8_t> counts(buckets);
    PathList::Cursor cursor(list);
    while (const PathList::Entry* entry = cursor.next()) {
        std::uint8_t& count = counts[extensionOf(*entry)];
        if (count < StoredOrder::minKind) ++count;
    }
    counts[0] = 0;  // no kind
    return counts;
}

}  // namespace

StoredOrder::StoredOrder(const PathList& list) : listed_(list) {
    const auto counts = countExtensions(list);
    if (std::ranges::find(counts, minKind) == counts.end()) return;
    std::map<std::uint32_t, Group> groups;
    PathList::Cursor cursor(list);
    for (std::uint32_t number = 0; const PathList::Entry* entry = cursor.next(); ++number) {
        const std::uint16_t extension = extensionOf(*entry);
        Group& group = groups[counts[extension] == minKind ? extension : 0];
        group.list.append(*entry);
        group.numbers.push_back(number);
    }
    if (groups.size() > 1) gather(groups);
}

void StoredOrder::gather(std::map<std::uint32_t, Group>& groups) {
    numbers_.reserve(listed_.size());
    while (!groups.empty()) {
        auto group = groups.extract(groups.begin());
        stored_.append(std::move(group.mapped().list));
        numbers_.insert(numbers_.end(), group.mapped().numbers.begin(), group.mapped().numbers.end());
        ends_.emplace_back(numbers_.size(), group.key());
    }
}

std::uint32_t StoredOrder::kind(std::uint64_t position) const {
    const auto end = std::ranges::upper_bound(ends_, position, {}, [](const auto& each) { return each.first; });
    return end == ends_.end() ? 0 : end->second;
}

}  // namespace tarnwick::qvx
