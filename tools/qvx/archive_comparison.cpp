#include "archive_comparison.h"

#include <algorithm>

#include "listing.h"
#include "qvx/format/access_list.h"

namespace tarnwick::qvx {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

bool haveEqualLength(const ComparedEntry& a, const ComparedEntry& b) { return a.type == b.type && a.size == b.size; }

std::string_view viewOf(const Digest& digest) { return {reinterpret_cast<const char*>(digest.data()), digest.size()}; }

struct Field {
    const char* name;
    bool (*differs)(const ComparedEntry& a, const ComparedEntry& b);
    std::string (*text)(const ComparedEntry& entry);  // null for none
};

constexpr Field fields[] = {
    {"type", [](const auto& a, const auto& b) { return a.type != b.type; },
     [](const auto& entry) { return std::string(typeName(entry.type)); }},
    {"size", [](const auto& a, const auto& b) { return a.size != b.size; },
     [](const auto& entry) { return std::to_string(entry.size); }},
    {"content",
     [](const auto& a, const auto& b) {
         return haveEqualLength(a, b) && contentsAreComparable(a, b) && a.content != b.content;
     },
     nullptr},
    {"mode", [](const auto& a, const auto& b) { return a.mode != b.mode; },
     [](const auto& entry) { return octalText(entry.mode); }},
    {"uid", [](const auto& a, const auto& b) { return a.userId != b.userId; },
     [](const auto& entry) { return std::to_string(entry.userId); }},
    {"gid", [](const auto& a, const auto& b) { return a.groupId != b.groupId; },
     [](const auto& entry) { return std::to_string(entry.groupId); }},
    {"mtime", [](const auto& a, const auto& b) { return a.modifiedSeconds != b.modifiedSeconds; },
     [](const auto& entry) { return timeText(entry.modifiedSeconds); }},
    {"mtime",
     [](const auto& a, const auto& b) {
         return a.modifiedSeconds == b.modifiedSeconds && a.modifiedNanoseconds != b.modifiedNanoseconds;
     },
     nullptr},
    {"flags", [](const auto& a, const auto& b) { return a.flags != b.flags; }, nullptr},
    {"xattrs", [](const auto& a, const auto& b) { return a.attributes != b.attributes; }, nullptr},
    {"acl", [](const auto& a, const auto& b) { return a.accessLists != b.accessLists; }, nullptr},
    {"incomplete", [](const auto& a, const auto& b) { return a.incomplete != b.incomplete; }, nullptr},
};

}  // namespace

Result<void, ReadFault> ComparedArchive::readIndex() {
    return reader_.list([&](std::uint64_t, const IndexEntry& entry) {
        add(entry);
        return true;
    });
}

void ComparedArchive::add(const IndexEntry& entry) {
    ComparedEntry& added = entries_.emplace_back();
    added.path = hash_(entry.path);
    added.size = entry.size;
    added.modifiedSeconds = entry.modifiedSeconds;
    added.userId = entry.userId;
    added.groupId = entry.groupId;
    added.mode = entry.mode;
    added.type = entry.type;
    added.incomplete = entry.incomplete;
}

std::vector<std::uint32_t> ComparedArchive::sortByPath() {
    std::vector<std::uint32_t> order(entries_.size());
    for (std::uint32_t number = 0; number < order.size(); ++number) order[number] = number;
    std::ranges::sort(order, [&](std::uint32_t a, std::uint32_t b) {
        return entries_[a].path != entries_[b].path ? entries_[a].path < entries_[b].path : a < b;
    });
    for (std::size_t i = 0; i + 1 < order.size(); ++i)
        entries_[order[i]].replaced = entries_[order[i]].path == entries_[order[i + 1]].path;
    std::erase_if(order, [&](std::uint32_t number) { return entries_[number].replaced; });
    return order;
}

Result<void, ReadFault> ComparedArchive::readMetadata() {
    if (auto read = readWanted(); !read) return read;
    if (wantReferences())
        if (auto read = readWanted(); !read) return read;
    resolveReferences();
    return {};
}

Result<void, ReadFault> ComparedArchive::readWanted() {
    const auto choice = [&](std::uint64_t number, std::string_view path) {
        return entries_[number].wanted && entries_[number].path == hash_(path);
    };
    auto read = reader_.readMetadata(choice, [&](const StoredMetadata& metadata) { add(metadata); });
    for (ComparedEntry& entry : entries_) entry.wanted = false;
    return read;
}

void ComparedArchive::add(const StoredMetadata& metadata) {
    const auto& [head, tail, target] = metadata;
    ComparedEntry& entry = entries_[head.number];
    const std::int64_t nanoseconds = head.modified.value_or(0) % nanosecondsPerSecond;
    entry.modifiedNanoseconds =
        static_cast<std::uint32_t>(nanoseconds < 0 ? nanoseconds + nanosecondsPerSecond : nanoseconds);
    entry.flags = head.flags.value_or(0);
    if (tail.attributes) entry.attributes = hashOf(*tail.attributes);
    if (tail.accessLists)
        entry.accessLists =
            hash_(accessListText(tail.accessLists->access) + '\n' + accessListText(tail.accessLists->defaultList));
    const bool isLink = head.type == EntryType::link;
    entry.refersToContent = tail.contentOf.has_value();
    entry.contentKnown = isLink ? target.size() == entry.size : tail.digest.has_value();
    if (tail.contentOf) entry.content = *tail.contentOf;
    if (entry.contentKnown) entry.content = hash_(isLink ? std::string_view(target) : viewOf(*tail.digest));
}

// An archive need not have them in any order.
std::uint64_t ComparedArchive::hashOf(const std::vector<ExtendedAttribute>& attributes) const {
    if (attributes.empty()) return 0;
    std::vector<std::string> texts;
    texts.reserve(attributes.size());
    for (const auto& [name, value] : attributes) texts.emplace_back(name).append(1, '\0').append(value);
    std::ranges::sort(texts);
    std::string all;
    for (const auto& text : texts) all.append(std::to_string(text.size())).append(1, ' ').append(text);
    return hash_(all);
}

// Whether there are any: entries whose content was referred to, and whose metadata was not read.
bool ComparedArchive::wantReferences() {
    bool any = false;
    for (const ComparedEntry& entry : entries_) {
        if (!entry.refersToContent || entry.content >= entries_.size()) continue;
        ComparedEntry& origin = entries_[entry.content];
        if (!origin.contentKnown && !origin.refersToContent) any = origin.wanted = true;
    }
    return any;
}

// A wrong reference leaves the content unknown.
void ComparedArchive::resolveReferences() {
    for (ComparedEntry& entry : entries_) {
        if (!entry.refersToContent || entry.content >= entries_.size()) continue;
        const ComparedEntry& origin = entries_[entry.content];
        entry.contentKnown = origin.contentKnown && !origin.refersToContent && haveEqualLength(entry, origin);
        if (entry.contentKnown) entry.content = origin.content;
    }
}

void pairEntries(ComparedArchive& before, ComparedArchive& after) {
    const auto old = before.sortByPath();
    const auto recent = after.sortByPath();
    for (auto a = old.begin(), b = recent.begin(); a != old.end() && b != recent.end();) {
        ComparedEntry& from = before.entries()[*a];
        ComparedEntry& to = after.entries()[*b];
        if (from.path == to.path) {
            from.partner = *b;
            to.partner = *a;
            from.wanted = to.wanted = haveEqualLength(from, to);
        }
        const bool next = to.path <= from.path;
        if (from.path <= to.path) ++a;
        if (next) ++b;
    }
}

std::vector<Difference> compareEntries(const ComparedEntry& before, const ComparedEntry& after) {
    std::vector<Difference> differences;
    for (const Field& field : fields) {
        if (!field.differs(before, after)) continue;
        const auto text = [&](const ComparedEntry& entry) { return field.text ? field.text(entry) : std::string(); };
        differences.push_back({field.name, text(before), text(after)});
    }
    return differences;
}

bool contentsAreComparable(const ComparedEntry& before, const ComparedEntry& after) {
    const bool unknown =
        before.type != EntryType::directory && before.size > 0 && !(before.contentKnown && after.contentKnown);
    return !haveEqualLength(before, after) || !unknown;
}

}  // namespace tarnwick::qvx
