#include "qvx/read/entry_table.h"

#include <algorithm>
#include <random>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t firstSlots = 1024;
constexpr std::uint32_t offsetMask = blockSize - 1;
constexpr std::uint32_t hasDigest = 1U << 30;
constexpr std::uint32_t isIncomplete = 1U << 31;

}  // namespace

EntryTable::EntryTable() : slots_(firstSlots) {
    std::mt19937 random(std::random_device{}());  // the device alone takes a microsecond for each number
    for (auto& row : hash_) std::ranges::generate(row, std::ref(random));
}

Status EntryTable::add(const RecordPlace& place, const EntryReader& entry) {
    const EntryTail& tail = entry.tail();
    if (entry.head().type != EntryType::file || tail.contentOf) return {};
    if ((count_ + 1) * 4 > slots_.size() * 3) grow();  // at least one slot in four is free
    const auto number = static_cast<std::uint32_t>(entry.head().number);
    std::uint32_t& slot = slots_[slotOf(number)];
    if (slot != 0) return entry.error("an earlier entry has its number");
    const std::uint32_t flags = (tail.digest ? hasDigest : 0) | (tail.unreadable ? isIncomplete : 0);
    if (count_ % chunkLength == 0) chunks_.push_back(std::make_unique<Chunk>());
    (*chunks_.back())[count_ % chunkLength] = {number,
                                               place.block,
                                               place.offset | flags,
                                               static_cast<std::uint32_t>(entry.size()),
                                               static_cast<std::uint32_t>(entry.size() >> 32),
                                               tail.digest ? checkOf(*tail.digest) : DigestCheck{}};
    slot = static_cast<std::uint32_t>(++count_);
    return {};
}

Status EntryTable::resolve(EntryReader& entry) const {
    if (!entry.tail().contentOf) return {};
    const File* file = find(*entry.tail().contentOf);
    if (!file) return entry.error("the entry with its content is missing or a different one");
    // Only that entry says what is missing, so this one would look complete.
    if (file->offsetAndFlags & isIncomplete) return entry.error("the entry with its content is incomplete");
    ContentCheck content{file->sizeLow | std::uint64_t{file->sizeHigh} << 32, std::nullopt};
    if (file->offsetAndFlags & hasDigest) content.digest = file->digest;
    entry.adopt(content);
    return {};
}

RecordPlace EntryTable::placeOf(std::uint64_t number) const {
    const File& file = *find(number);
    return {file.block, file.offsetAndFlags & offsetMask};
}

const EntryTable::File& EntryTable::at(std::uint32_t slot) const {
    return (*chunks_[(slot - 1) / chunkLength])[(slot - 1) % chunkLength];
}

const EntryTable::File* EntryTable::find(std::uint64_t number) const {
    if (number >= maxEntries) return nullptr;
    const std::uint32_t slot = slots_[slotOf(static_cast<std::uint32_t>(number))];
    return slot != 0 ? &at(slot) : nullptr;
}

// The slot of the entry with this number; otherwise the free slot where it belongs.
std::size_t EntryTable::slotOf(std::uint32_t number) const {
    std::size_t slot = hashOf(number);
    while (slots_[slot] != 0 && at(slots_[slot]).number != number) slot = (slot + 1) % slots_.size();
    return slot;
}

std::size_t EntryTable::hashOf(std::uint32_t number) const {
    std::uint32_t hash = 0;
    for (unsigned i = 0; i < hash_.size(); ++i) hash ^= hash_[i][number >> (8 * i) & 0xff];
    return hash % slots_.size();
}

// The slots are filled again from the chunks, so that the old ones need not be kept meanwhile.
void EntryTable::grow() {
    const std::size_t size = slots_.size() * 2;
    slots_ = {};
    slots_.resize(size);
    for (std::uint32_t slot = 1; slot <= count_; ++slot) slots_[slotOf(at(slot).number)] = slot;
}

}  // namespace tarnwick::qvx
