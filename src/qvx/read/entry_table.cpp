#include "qvx/read/entry_table.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

// Passes only the content of one entry to the sink of another entry.
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
    // The entry is checked again while it is read: since its digest was computed, the file may have changed.
    ContentForwarder forwarder(sink);
    EntryReader entry(forwarder);
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        const auto block = blocks.get(sequence);
        if (block->fault) return false;
        RecordCursor cursor(block->plain, offset);
        while (const auto record = cursor.next()) {
            if (!entry.consume(*record)) return false;
            if (!entry.isComplete()) continue;
            // The place may come from the index of a hostile archive: the entry must be the one that was named, and not
            // refer to another one itself.
            return entry.head().number == place.number && !entry.tail().contentOf &&
                   (!expected.digest || expected.digest == entry.tail().digest) &&
                   (!expected.totals || expected.totals->size == entry.size());
        }
        if (cursor.damaged()) return false;
    }
}

void EntryTable::add(const EntryPlace& place, const EntryReader& entry) {
    if (entry.head().type != EntryType::file) return;
    const EntryTail& tail = entry.tail();
    const SparseTotals totals = tail.totals.value_or(SparseTotals{entry.size(), 0});
    const bool unreadable = tail.unreadable && !tail.unreadable->empty();
    files_.push_back({place, tail.contentOf.value_or(place.number), tail.digest, totals, unreadable});
}

Status EntryTable::resolve(EntryReader& entry) const {
    const EntryTail& tail = entry.tail();
    if (!tail.contentOf) return {};
    const FileEntry* content = find(*tail.contentOf);
    // A reference leads directly to the entry with the content, so no chain of references must be followed.
    if (!content || content->content != *tail.contentOf)
        return entry.error("the entry with its content is missing or a different one");
    // Its zeros would be taken for real content, because only that entry says which of them are not.
    if (content->unreadable) return entry.error("the entry with its content is incomplete");
    const bool sameDigest = !tail.digest || tail.digest == content->digest;
    const bool sameSize = !tail.totals || tail.totals->size == content->totals.size;
    if (!sameDigest || !sameSize) return entry.error("digest or size differ from those of the entry with its content");
    entry.adopt(content->digest, content->totals);
    return {};
}

const EntryPlace* EntryTable::placeOf(std::uint64_t number) const {
    const FileEntry* file = find(number);
    return file && file->content == number ? &file->place : nullptr;
}

const EntryTable::FileEntry* EntryTable::find(std::uint64_t number) const {
    const auto found =
        std::lower_bound(files_.begin(), files_.end(), number,
                         [](const FileEntry& file, std::uint64_t key) { return file.place.number < key; });
    return found != files_.end() && found->place.number == number ? &*found : nullptr;
}

}  // namespace tarnwick::qvx
