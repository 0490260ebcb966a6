#include "qvx/write/stored_order.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t buckets = 65536;
constexpr std::uint8_t ofDirectory = 255;  // the extension is no kind

// A block of compressed files only would be stored as it is. Among other files, repetitions of them are found.
constexpr std::array<std::string_view, 6> compressed{"bz2", "gz", "lz4", "xz", "zip", "zst"};

// A hash (FNV-1a) of the extension without its digits; 0 for none, and for a compressed file. Files whose hashes are
// equal by accident only compress a little worse.
std::uint16_t extensionOf(const std::string& path) {
    const std::string_view name = nameOf(path);
    const auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return 0;
    const std::string_view extension = name.substr(dot + 1);
    if (std::ranges::find(compressed, extension) != compressed.end()) return 0;
    std::uint32_t hash = 2166136261;
    for (const char byte : extension)
        if (byte < '0' || byte > '9') hash = (hash ^ static_cast<std::uint8_t>(byte)) * 16777619;
    return static_cast<std::uint16_t>(hash ^ (hash >> 16));
}

struct Section {
    std::uint32_t entries = 0;
    std::vector<std::uint8_t> counts = std::vector<std::uint8_t>(buckets);  // of each extension, up to minKind
};

// A directory must come before the files in it: only then can a reader make it with its mode.
Section countExtensions(PathList::Cursor listed) {
    Section section;
    for (std::size_t bytes = 0; section.entries < StoredOrder::maxSection && bytes < StoredOrder::maxPaths;) {
        const PathList::Entry* entry = listed.next();
        if (!entry) break;
        ++section.entries;
        bytes += entry->path.size();
        std::uint8_t& count = section.counts[extensionOf(entry->path)];
        if (entry->type == EntryType::directory) count = ofDirectory;
        if (count < StoredOrder::minKind) ++count;
    }
    section.counts[0] = 0;  // no kind
    return section;
}

}  // namespace

StoredOrder::StoredOrder(PathList::Cursor& listed) {
    const Section section = countExtensions(listed);
    std::map<std::uint32_t, Group> groups;
    for (std::uint32_t place = 0; place < section.entries; ++place) {
        const PathList::Entry* entry = listed.next();
        const std::uint16_t extension = extensionOf(entry->path);
        Group& group = groups[section.counts[extension] == minKind ? extension : 0];
        group.list.append(*entry);
        group.places.push_back(place);
    }
    gather(groups);
}

void StoredOrder::gather(std::map<std::uint32_t, Group>& groups) {
    while (!groups.empty()) {
        auto group = groups.extract(groups.begin());
        stored_.append(std::move(group.mapped().list));
        places_.insert(places_.end(), group.mapped().places.begin(), group.mapped().places.end());
        ends_.emplace_back(places_.size(), group.key());
    }
}

std::uint32_t StoredOrder::kind(std::uint64_t position) const {
    const auto end = std::ranges::upper_bound(ends_, position, {}, [](const auto& each) { return each.first; });
    return end == ends_.end() ? 0 : end->second;
}

}  // namespace tarnwick::qvx
