#include "platform/archive/entry_table.h"

#include <algorithm>

#include "platform/archive/wire.h"

namespace tarnwick::qvx {

namespace {

std::uint64_t digestBegin(const EntryTail& tail) { return tail.digest ? getLittleEndian<8>(tail.digest->data()) : 0; }

// Hands on the content of one entry as that of another.
class ContentForwarder : public EntrySink {
public:
    explicit ContentForwarder(EntrySink& sink) : sink_(sink) {}
    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes bytes) override { return sink_.data(bytes); }
    bool hole(std::uint64_t length) override { return sink_.hole(length); }
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}

private:
    EntrySink& sink_;
};

}  // namespace

bool readContent(RandomBlocks& blocks, const EntryPlace& place, const EntryTail& expected, EntrySink& sink) {
    ContentForwarder forwarder(sink);
    EntryReader entry(forwarder);
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        const auto block = blocks.get(sequence);
        if (block->fault) return false;
        RecordCursor cursor(block->plain, offset);
        while (const auto record = cursor.next()) {
            const auto step = entry.take(*record);
            if (step == EntryReader::Step::more) continue;
            return step == EntryReader::Step::whole && entry.head().number == place.number &&
                   !entry.tail().contentOf && entry.tail().digest == expected.digest &&
                   (!expected.sum || expected.sum->size == entry.size());
        }
        if (cursor.damaged()) return false;
    }
}

void EntryTable::add(const EntryPlace& place, const EntryReader& entry) {
    const bool holdsContent = entry.head().type == EntryType::file && !entry.tail().contentOf;
    entries_.push_back({place, entry.size(), digestBegin(entry.tail()), entry.head().type, holdsContent});
}

const EntryTable::Known* EntryTable::find(std::uint64_t number) const {
    const auto found =
        std::lower_bound(entries_.begin(), entries_.end(), number,
                         [](const Known& known, std::uint64_t key) { return known.place.number < key; });
    return found != entries_.end() && found->place.number == number ? &*found : nullptr;
}

const char* EntryTable::faultOfReferences(const EntryReader& entry) const {
    const auto& tail = entry.tail();
    const auto fits = [&](const Known* known) {
        return known && known->type == entry.head().type && known->size == entry.size() &&
               known->digestBegin == digestBegin(tail);
    };
    if (tail.contentOf) {
        const Known* known = find(*tail.contentOf);
        if (!fits(known) || !known->holdsContent) return "the entry that holds its content is another or lost";
    }
    if (tail.linkOf && !fits(find(*tail.linkOf))) return "the entry that it is linked to is another or lost";
    return nullptr;
}

}  // namespace tarnwick::qvx
