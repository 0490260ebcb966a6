#include "qvx/write/stored_contents.h"

#include <limits>

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t bitsPerEntry = 16;
constexpr std::size_t firstSlots = 64;

std::uint64_t hashOf(dev_t device, ino_t inode) {
    // The factor is 2^64 divided by the golden ratio. It spreads inode numbers, which are often consecutive.
    std::uint64_t hash = (inode ^ (static_cast<std::uint64_t>(device) << 40)) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 32;
    return hash * 0x9e3779b97f4a7c15;
}

bool isWide(dev_t device) { return device > std::numeric_limits<std::uint32_t>::max(); }

}  // namespace

StoredContents::StoredContents(const PathList& list) : repeated_(list.size() * bitsPerEntry + 1), slots_(firstSlots) {
    // A Bloom filter with one hash: it may report a file as repeated that is not, never the reverse.
    std::vector<bool> listed(repeated_.size());
    PathList::Cursor cursor(list);
    while (const PathList::Entry* entry = cursor.next()) {
        const auto bit = static_cast<std::size_t>(hashOf(entry->device, entry->inode) % listed.size());
        if (listed[bit]) repeated_[bit] = true;
        listed[bit] = true;
    }
}

// The slot of the file; otherwise the free slot where it belongs.
std::size_t StoredContents::place(std::uint32_t device, std::uint64_t inode) const {
    std::size_t at = static_cast<std::size_t>(hashOf(device, inode) >> 20) % slots_.size();
    while (slots_[at].number != none && (slots_[at].inode != inode || slots_[at].device != device))
        at = (at + 1) % slots_.size();
    return at;
}

std::optional<StoredContents::Content> StoredContents::find(dev_t device, ino_t inode) const {
    if (isWide(device)) return std::nullopt;
    const Slot& slot = slots_[place(static_cast<std::uint32_t>(device), inode)];
    if (slot.number == none) return std::nullopt;
    return Content{slot.number, slot.size};
}

void StoredContents::add(dev_t device, ino_t inode, const Content& content) {
    // A slot has 32 bits for the device and for the number. A file that does not fit is stored twice: larger, but
    // correct.
    if (isWide(device) || content.number >= none ||
        !repeated_[static_cast<std::size_t>(hashOf(device, inode) % repeated_.size())])
        return;
    // With free slots left, place() always ends.
    if ((used_ + 1) * 4 > slots_.size() * 3) grow();
    const auto narrow = static_cast<std::uint32_t>(device);
    Slot& slot = slots_[place(narrow, inode)];
    if (slot.number == none) ++used_;
    slot = {inode, narrow, static_cast<std::uint32_t>(content.number), content.size};
}

void StoredContents::grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old)
        if (slot.number != none) slots_[place(slot.device, slot.inode)] = slot;
}

}  // namespace tarnwick::qvx
