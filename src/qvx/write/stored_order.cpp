#include "qvx/write/stored_order.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t buckets = 65536;

// FNV-1a of the bytes that are no digits. Files whose hashes are equal by accident only compress a little worse.
std::uint16_t bucketOf(std::string_view text) {
    std::uint32_t hash = 2166136261;
    for (const char byte : text) {
        if (byte >= '0' && byte <= '9') continue;
        hash = (hash ^ static_cast<std::uint8_t>(byte)) * 16777619;
    }
    return static_cast<std::uint16_t>(hash ^ (hash >> 16));
}

// A block of compressed files only would be stored as it is. Among other files, repetitions of them are found.
bool isCompressed(std::string_view extension) {
    static constexpr std::array<std::string_view, 7> extensions{"bz2", "gz", "lz4", "xz", "zip", "zst", "zlib"};
    return std::ranges::find(extensions, extension) != extensions.end();
}

struct NameBuckets {
    explicit NameBuckets(const std::string& path) {
        const std::string_view name = nameOf(path);
        const auto dot = name.rfind('.');
        hasExtension = dot != std::string_view::npos && dot > 0;
        const std::string_view text = hasExtension ? name.substr(dot + 1) : std::string_view();
        compressed = isCompressed(text);
        extension = bucketOf(text);
        whole = bucketOf(name);
    }

    std::uint16_t whole = 0;
    std::uint16_t extension = 0;
    bool hasExtension = false;
    bool compressed = false;
};

// How many files have a name or an extension: counted up to the least size of a kind, in a table of fixed size.
class KindCounts {
public:
    void add(const NameBuckets& name) {
        count(names_[name.whole]);
        if (name.hasExtension) count(extensions_[name.extension]);
    }

    // 0 for no kind. Kinds with the same extension have neighbouring values.
    [[nodiscard]] std::uint32_t kindOf(const NameBuckets& name) const {
        const bool commonName = names_[name.whole] == StoredOrder::minKind;
        const bool commonExtension = name.hasExtension && extensions_[name.extension] == StoredOrder::minKind;
        if (name.compressed || (!commonName && !commonExtension)) return 0;
        const std::uint32_t kind = (name.extension * std::uint32_t{buckets}) | (commonName ? name.whole : 0U);
        return std::max(kind, std::uint32_t{1});
    }

private:
    static void count(std::uint8_t& counter) {
        if (counter < StoredOrder::minKind) ++counter;
    }

    std::vector<std::uint8_t> names_ = std::vector<std::uint8_t>(buckets);
    std::vector<std::uint8_t> extensions_ = std::vector<std::uint8_t>(buckets);
};

KindCounts countKinds(const PathList& list) {
    KindCounts counts;
    PathList::Cursor cursor(list);
    while (const PathList::Entry* entry = cursor.next())
        if (entry->type == EntryType::file) counts.add(NameBuckets(entry->path));
    return counts;
}

}  // namespace

StoredOrder::StoredOrder(const PathList& list) : listed_(list) {
    const KindCounts counts = countKinds(list);
    std::map<std::uint32_t, Group> groups;
    PathList::Cursor cursor(list);
    for (std::uint32_t number = 0; const PathList::Entry* entry = cursor.next(); ++number) {
        Group& group = groups[entry->type == EntryType::file ? counts.kindOf(NameBuckets(entry->path)) : 0];
        group.list.append(*entry);
        group.numbers.push_back(number);
    }
    if (groups.size() > 1) gather(groups);
}

void StoredOrder::gather(std::map<std::uint32_t, Group>& groups) {
    numbers_.reserve(listed_.size());
    while (!groups.empty()) {
        const auto group = groups.extract(groups.begin());
        stored_.append(group.mapped().list);
        numbers_.insert(numbers_.end(), group.mapped().numbers.begin(), group.mapped().numbers.end());
        ends_.emplace_back(numbers_.size(), group.key());
    }
}

std::uint32_t StoredOrder::kind(std::uint64_t position) const {
    const auto end = std::ranges::upper_bound(ends_, position, {}, [](const auto& each) { return each.first; });
    return end == ends_.end() ? 0 : end->second;
}

}  // namespace tarnwick::qvx
