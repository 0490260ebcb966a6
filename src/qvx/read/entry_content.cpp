#include "qvx/read/entry_content.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxContents = 64;
constexpr std::size_t maxMemory = 8 << 20;  // bytes, of all contents but the last one

const char* const indexMismatch = "the index does not match the entry";

// Walks over the content that is in one block.
class PartCursor {
public:
    struct Part {
        Bytes data;  // empty for a hole
        std::uint64_t length = 0;
    };

    PartCursor(Bytes block, std::size_t offset) : records_(block, offset) {}

    // The next part; none at the end of the block, at END and where the entry is malformed.
    std::optional<Part> next() {
        for (;;) {
            const std::size_t offset = records_.offset();
            const auto record = records_.next();
            if (!record) return malformed_ = records_.damaged(), std::nullopt;
            if (record->type == RecordType::pad) continue;
            if (record->type == RecordType::end) return end_ = offset, std::nullopt;
            const auto part = partOf(*record);
            malformed_ = !part;
            return part;
        }
    }
    [[nodiscard]] bool malformed() const { return malformed_; }
    [[nodiscard]] const std::optional<std::size_t>& end() const { return end_; }  // offset of the END record

private:
    static std::optional<Part> partOf(const Record& record) {
        if (record.type == RecordType::data && !record.payload.empty())
            return Part{record.payload, record.payload.size()};
        const auto length = record.type == RecordType::hole ? decodeHole(record.payload) : std::nullopt;
        return length ? std::optional(Part{{}, *length}) : std::nullopt;
    }

    RecordCursor records_;
    bool malformed_ = false;
    std::optional<std::size_t> end_;
};

// Copies what the part, which starts at `start` in the content, has of the bytes at `position`.
void copyPart(const PartCursor::Part& part, std::uint64_t start, std::uint64_t position, MutableBytes bytes) {
    const std::uint64_t begin = std::max(start, position);
    const std::uint64_t end = std::min(start + part.length, position + bytes.size());
    if (begin >= end) return;
    const auto to = bytes.subspan(static_cast<std::size_t>(begin - position), static_cast<std::size_t>(end - begin));
    if (part.data.empty()) std::ranges::fill(to, std::uint8_t{0});
    if (!part.data.empty()) std::copy_n(&part.data[static_cast<std::size_t>(begin - start)], to.size(), to.begin());
}

}  // namespace

EntryContent::EntryContent(BlockCache& blocks, EntryLocator locate, IndexedEntry entry)
    : blocks_(blocks), locate_(std::move(locate)), entry_(std::move(entry)) {}

Result<std::size_t> EntryContent::read(std::uint64_t position, MutableBytes bytes) {
    if (position >= entry_.size) return std::size_t{0};
    const Extent extent{position, std::min<std::uint64_t>(bytes.size(), entry_.size - position)};
    bytes = bytes.first(static_cast<std::size_t>(extent.length));
    std::vector<Piece> pieces;
    {
        const std::lock_guard lock(mutex_);
        if (const Status measured = measure(extent.end()); !measured) return measured.error();
        pieces = piecesOf(extent);
    }
    for (const Piece& piece : pieces)
        if (const Status copied = copy(piece, position, bytes); !copied) return copied.error();
    return bytes.size();
}

// The read of the last byte checks that the content ends there.
Status EntryContent::measure(std::uint64_t end) {
    if (starts_.empty()) {
        const auto place = locate_(entry_.number);
        if (!place) return error(indexMismatch);
        if (const Status begun = begin(entry_.number, *place, &entry_.path); !begun) return begun;
    }
    while (!ended_ && (starts_.back() < end || end == entry_.size)) {
        if (const Status measured = measureBlock(); !measured) return measured;
        if (starts_.back() > entry_.size) return error(indexMismatch);
    }
    return {};
}

Status EntryContent::begin(std::uint64_t number, const RecordPlace& place, const std::string* path) {
    const auto first = block(place.block);
    if (!first) return first.error();
    RecordCursor cursor((*first)->plain, place.offset);
    const auto record = cursor.next();
    const auto head = record && record->type == RecordType::entry ? decodeEntryHead(record->payload) : std::nullopt;
    const bool expected = head && head->number == number && head->type == entry_.type && (!path || head->path == *path);
    if (!expected) return error(indexMismatch);
    place_ = place;
    first_ = {place.block, static_cast<std::uint32_t>(cursor.offset())};
    starts_ = {0};
    return {};
}

Status EntryContent::measureBlock() {
    const std::uint64_t sequence = first_.block + starts_.size() - 1;
    const auto next = block(sequence);
    if (!next) return next.error();
    std::uint64_t size = starts_.back();
    PartCursor parts((*next)->plain, starts_.size() == 1 ? first_.offset : 0);
    while (const auto part = parts.next()) {
        if (part->length > maxContentSize - size) return error("the content is too long");
        size += part->length;
    }
    if (parts.malformed()) return error("the content is malformed");
    if (parts.end()) return finish(size, recordPlace(**next, *parts.end()));
    starts_.push_back(size);
    memory_ = starts_.capacity() * sizeof starts_.front();
    return {};
}

// The content of `size` bytes ends with the END record at `end`.
Status EntryContent::finish(std::uint64_t size, RecordPlace end) {
    const auto tail = readTail(end);
    if (!tail) return tail.error();
    const bool refers = tail->contentOf && size == 0 && !referred_ && entry_.type == EntryType::file;
    if (refers) return follow(*tail->contentOf);
    const bool wrongTotal = tail->totals && tail->totals->size != size;
    if (tail->contentOf || wrongTotal || (referred_ && tail->unreadable))
        return error("the end of the entry is malformed");
    if (size != entry_.size) return error(indexMismatch);
    starts_.push_back(size);
    ended_ = true;
    return {};
}

// An entry refers to an earlier one only.
Status EntryContent::follow(std::uint64_t number) {
    const auto place = locate_(number);
    if (!place || *place >= place_) return error("the entry with its content is missing or a different one");
    Status begun = begin(number, *place, nullptr);
    if (begun) referred_ = true;
    return begun;
}

Result<EntryTail> EntryContent::readTail(RecordPlace end) {
    RecordJoiner joiner;
    for (;; end = {end.block + 1, 0}) {
        const auto next = block(end.block);
        if (!next) return next.error();
        const auto record = RecordCursor((*next)->plain, end.offset).next();
        if (!record || record->type != RecordType::end) break;
        const auto state = joiner.add(*record, maxEndLength);
        if (state == RecordJoiner::State::partial) continue;
        auto tail = state == RecordJoiner::State::complete ? decodeEntryTail(joiner.payload()) : std::nullopt;
        if (!tail) break;
        return std::move(*tail);
    }
    return error("the end of the entry is malformed");
}

std::vector<EntryContent::Piece> EntryContent::piecesOf(const Extent& extent) const {
    std::vector<Piece> pieces;
    auto start = std::ranges::upper_bound(starts_, extent.offset) - 1;
    for (; start + 1 != starts_.end() && *start < extent.end(); ++start) {
        const auto number = static_cast<std::uint64_t>(start - starts_.begin());
        if (start[0] == start[1]) continue;  // there is only padding in that block
        pieces.push_back({first_.block + number, number == 0 ? first_.offset : 0, {*start, start[1] - start[0]}});
    }
    return pieces;
}

Status EntryContent::copy(const Piece& piece, std::uint64_t position, MutableBytes bytes) {
    const auto opened = block(piece.sequence);
    if (!opened) return opened.error();
    const std::uint64_t end = std::min(piece.extent.end(), position + bytes.size());
    std::uint64_t start = piece.extent.offset;
    PartCursor parts((*opened)->plain, piece.offset);
    while (start < end) {
        const auto part = parts.next();
        if (!part) return error("the content has changed");
        copyPart(*part, start, position, bytes);
        start += part->length;
    }
    return {};
}

Result<BlockPointer> EntryContent::block(std::uint64_t sequence) {
    auto block = blocks_.get(sequence);
    if (block->fault) return error("block " + std::to_string(sequence) + ": " + block->fault->text);
    return block;
}

Error EntryContent::error(std::string text) const { return {std::move(text), 0, entryName(entry_.path)}; }

std::shared_ptr<EntryContent> EntryContents::get(const IndexedEntry& entry) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(recent_, entry.number, [](const auto& content) { return content->number(); });
    if (found != recent_.end()) {
        recent_.splice(recent_.begin(), recent_, found);
        return recent_.front();
    }
    evict();
    recent_.push_front(std::make_shared<EntryContent>(blocks_, locate_, entry));
    return recent_.front();
}

void EntryContents::evict() {
    std::size_t memory = 0;
    for (const auto& content : recent_) memory += content->memory();
    while (!recent_.empty() && (recent_.size() >= maxContents || memory > maxMemory)) {
        memory -= std::min(memory, recent_.back()->memory());
        recent_.pop_back();
    }
}

}  // namespace tarnwick::qvx
