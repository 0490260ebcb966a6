#include "entry_tree.h"

#include <algorithm>
#include <climits>
#include <random>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t firstSlots = 1024;
constexpr std::uint16_t madeUpMode = 0555;
constexpr std::uint16_t permissions = 0777;
constexpr std::uint64_t hashPrime = (std::uint64_t{1} << 61) - 1;
constexpr std::uint64_t freeDirectories = 65536;  // made up, besides four for each entry: a path may have 2048 of them

std::uint64_t randomKey() {
    std::random_device random;
    return (std::uint64_t{random()} << 32 | random()) % hashPrime;
}

// The value of a polynomial at a random place: two names of n bytes have the same one with probability n / 2^61.
std::uint64_t hashOf(std::uint64_t key, std::uint64_t parent, std::string_view name) {
    __extension__ using Wide = unsigned __int128;
    std::uint64_t hash = parent;
    for (const char c : name) {
        const Wide product = static_cast<Wide>(hash) * key + static_cast<unsigned char>(c) + 1;
        hash = static_cast<std::uint64_t>(product & hashPrime) + static_cast<std::uint64_t>(product >> 61);
        if (hash >= hashPrime) hash -= hashPrime;
    }
    // Parents with consecutive numbers have equally spaced values, which could fill a part of the table only.
    return (hash ^ hash >> 32) * 0x9e3779b97f4a7c15 >> 16;
}

bool isShowable(std::string_view path) {
    while (!path.empty()) {
        const std::size_t length = std::min(path.find('/'), path.size());
        if (length > NAME_MAX) return false;
        path.remove_prefix(std::min(length + 1, path.size()));
    }
    return true;
}

}  // namespace

EntryTree::EntryTree() : nodes_(2), slots_(firstSlots), hashKey_(randomKey()) {
    nodes_[root].parent = root;
    nodes_[root].mode = madeUpMode;
}

void EntryTree::add(const IndexEntry& entry, std::uint64_t number) {
    locations_.push_back({static_cast<std::uint32_t>(number), locationOf(entry)});
    const NodeId id = isShowable(entry.path) ? makePath(entry.path) : none;
    const bool isDirectory = entry.type == EntryType::directory;
    if (id == none || (!isDirectory && nodes_[id].lastChild != none)) {
        ++leftOut_;
        return;
    }
    Node& node = nodes_[id];
    node.number = static_cast<std::uint32_t>(number);
    node.type = entry.type;
    node.mode = entry.mode & permissions;
    node.userId = entry.userId;
    node.groupId = entry.groupId;
    node.size = entry.size;
    node.modified = entry.modifiedSeconds;
}

EntryTree::NodeId EntryTree::makePath(std::string_view path) {
    NodeId id = root;
    for (auto slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
        id = makeDirectory(id, path.substr(0, slash));
        if (id == none) return none;
        path.remove_prefix(slash + 1);
    }
    if (path.empty()) return root;
    const NodeId found = find(id, path);
    return found != none ? found : append(id, path);
}

EntryTree::NodeId EntryTree::makeDirectory(NodeId parent, std::string_view name) {
    if (const NodeId found = find(parent, name)) return nodes_[found].type == EntryType::directory ? found : none;
    if (madeUp_ >= freeDirectories + 4 * locations_.size()) return none;
    ++madeUp_;
    const NodeId made = append(parent, name);
    nodes_[made].mode = madeUpMode;
    return made;
}

EntryTree::NodeId EntryTree::append(NodeId parent, std::string_view name) {
    if (nodes_.size() * 4 > slots_.size() * 3) grow();
    const auto id = static_cast<NodeId>(nodes_.size());
    auto* text = static_cast<char*>(names_.allocate(name.size() + 1, 1));
    text[name.copy(text, name.size())] = '\0';
    NodeId& last = nodes_[parent].lastChild;
    nodes_.push_back(
        {.name = text, .parent = parent, .next = id, .nameLength = static_cast<std::uint8_t>(name.size())});
    if (last != none) std::swap(nodes_[id].next, nodes_[last].next);
    last = id;
    slots_[slotOf(parent, name)] = id;
    return id;
}

EntryTree::NodeId EntryTree::find(NodeId parent, std::string_view name) const { return slots_[slotOf(parent, name)]; }

// The slot of that node; otherwise the free slot where it belongs.
std::size_t EntryTree::slotOf(NodeId parent, std::string_view name) const {
    std::size_t slot = hashOf(hashKey_, parent, name) % slots_.size();
    const auto isOther = [&](const Node& node) { return node.parent != parent || node.nameText() != name; };
    while (slots_[slot] != none && isOther(nodes_[slots_[slot]])) slot = (slot + 1) % slots_.size();
    return slot;
}

// The slots are filled again from the nodes, so that the old ones need not be kept meanwhile.
void EntryTree::grow() {
    const std::size_t size = slots_.size() * 2;
    slots_ = {};
    slots_.resize(size);
    for (NodeId id = root + 1; id < nodes_.size(); ++id) slots_[slotOf(nodes_[id].parent, nodes_[id].nameText())] = id;
}

EntryTree::NodeId EntryTree::firstChild(NodeId directory) const {
    const NodeId last = nodes_[directory].lastChild;
    return last == none ? none : nodes_[last].next;
}

EntryTree::NodeId EntryTree::nextSibling(NodeId id) const {
    const Node& node = nodes_[id];
    return nodes_[node.parent].lastChild == id ? none : node.next;
}

std::string EntryTree::pathOf(NodeId id) const {
    std::vector<std::string_view> names;
    for (; id != root; id = nodes_[id].parent) names.push_back(nodes_[id].nameText());
    std::string path;
    for (; !names.empty(); names.pop_back()) path.append(path.empty() ? "" : "/").append(names.back());
    return path;
}

std::optional<EntryLocation> EntryTree::locate(std::uint64_t number) const {
    const auto found = std::ranges::lower_bound(locations_, number, {}, &NumberedLocation::number);
    return found != locations_.end() && found->number == number ? std::optional(found->location) : std::nullopt;
}

}  // namespace tarnwick::qvx
