#include "qvx/read/entry_content.h"

#include <algorithm>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxContents = 64;
constexpr std::size_t maxMemory = 8 << 20;  // bytes, of all contents but the last one

constexpr std::size_t maxTailBlocks = maxEndLength / blockSize + 2;

const char* const indexMismatch = "the index does not match the entry";

// Walks over the content that is in one block.
class PartCursor {
public:
    using Part = EntryContent::Part;

    PartCursor(BlockPointer block, std::size_t offset) : block_(std::move(block)), records_(block_->plain, offset) {}

    // The next part; none at the end of the block, at END and where the entry is malformed.
    std::optional<Part> next() {
        for (;;) {
            const std::size_t offset = records_.offset();
            const auto record = records_.next();
            if (!record) return malformed_ = records_.damaged(), std::nullopt;
            if (record->type == RecordType::pad) continue;
            if (record->type == RecordType::end) {
                end_ = offset;
                endContinues_ = record->continues;
                return std::nullopt;
            }
            auto part = partOf(*record);
            malformed_ = !part;
            return part;
        }
    }
    [[nodiscard]] bool malformed() const { return malformed_; }
    [[nodiscard]] const std::optional<std::size_t>& end() const { return end_; }  // offset of the END record
    [[nodiscard]] bool endContinues() const { return endContinues_; }             // in the next block

private:
    [[nodiscard]] std::optional<Part> partOf(const Record& record) const {
        if (record.type == RecordType::data && !record.payload.empty())
            return Part{block_, record.payload, record.payload.size()};
        const auto length = record.type == RecordType::hole ? decodeHole(record.payload) : std::nullopt;
        return length ? std::optional(Part{nullptr, {}, *length}) : std::nullopt;
    }

    BlockPointer block_;
    RecordCursor records_;
    bool malformed_ = false;
    std::optional<std::size_t> end_;
    bool endContinues_ = false;
};

// What of the part is in the wanted extent; `whole` is the extent of the part.
EntryContent::Part cut(EntryContent::Part part, const Extent& whole, const Extent& wanted) {
    const std::uint64_t begin = std::max(whole.offset, wanted.offset);
    part.length = std::min(whole.end(), wanted.end()) - begin;
    if (part.bytes.empty()) return part;
    part.bytes =
        part.bytes.subspan(static_cast<std::size_t>(begin - whole.offset), static_cast<std::size_t>(part.length));
    return part;
}

}  // namespace

EntryLocation locationOf(const IndexEntry& entry) {
    return {{static_cast<std::uint32_t>(entry.block), static_cast<std::uint32_t>(entry.offset)},
            static_cast<std::uint32_t>(entry.block + entry.span)};
}

EntryContent::EntryContent(BlockCache& blocks, EntryLocator locate, IndexedEntry entry)
    : blocks_(blocks), locate_(std::move(locate)), entry_(std::move(entry)) {}

Result<std::vector<EntryContent::Part>> EntryContent::parts(std::uint64_t position, std::uint64_t length) {
    std::vector<Part> parts;
    if (position >= entry_.size || length == 0) return parts;
    const Extent extent{position, std::min(length, entry_.size - position)};
    std::vector<Piece> pieces;
    {
        const std::lock_guard lock(mutex_);
        if (const Status opened = open(); !opened) return opened.error();
        if (const Status measured = measure(extent); !measured) return measured.error();
        pieces = piecesOf(extent);
    }
    for (const Piece& piece : pieces)
        if (const Status added = addParts(piece, extent, parts); !added) return added.error();
    return parts;
}

Result<std::size_t> EntryContent::read(std::uint64_t position, MutableBytes bytes) {
    const auto found = parts(position, bytes.size());
    if (!found) return found.error();
    std::uint8_t* to = bytes.data();
    for (const Part& part : *found) {
        if (part.bytes.empty()) std::fill_n(to, part.length, std::uint8_t{0});
        std::ranges::copy(part.bytes, to);
        to += part.length;
    }
    return static_cast<std::size_t>(to - bytes.data());
}

// If it fails, the next read tries again.
Status EntryContent::open() {
    if (!starts_.empty()) return {};
    Status opened = openAt(entry_.number, &entry_.path);
    if (opened && entry_.type == EntryType::file) opened = followReference();
    if (!opened) starts_.clear();
    return opened;
}

Status EntryContent::openAt(std::uint64_t number, const std::string* path) {
    const auto location = locate_(number);
    const bool inArchive =
        location && location->lastBlock >= location->place.block && location->lastBlock < blocks_.end();
    if (!inArchive) return error(indexMismatch);
    const auto opened = blocks_.get(location->place.block);
    if (opened->fault) return blockError(*opened);
    RecordCursor cursor(opened->plain, location->place.offset);
    const auto record = cursor.next();
    const auto head = record && record->type == RecordType::entry ? decodeEntryHead(record->payload) : std::nullopt;
    const bool expected = head && head->number == number && head->type == entry_.type && (!path || head->path == *path);
    if (!expected) return error(indexMismatch);
    place_ = location->place;
    first_ = {place_.block, static_cast<std::uint32_t>(cursor.offset())};
    starts_.assign(location->lastBlock - place_.block + std::size_t{2}, 0);
    starts_.back() = entry_.size;
    front_ = 0;
    back_ = blocks();
    memory_ = starts_.capacity() * sizeof starts_.front();
    return {};
}

// If there is no content, there is a reference to an earlier entry.
Status EntryContent::followReference() {
    if (blocks() > maxTailBlocks) return {};
    const auto first = scan(0);
    if (!first) return first.error();
    if (first->size > 0) return {};
    const auto tail = readTail();
    if (!tail) return tail.error();
    if (!tail->contentOf) return {};
    const auto location = locate_(*tail->contentOf);
    if (!location || location->place >= place_)
        return error("the entry with its content is missing or a different one");
    Status opened = openAt(*tail->contentOf, nullptr);
    if (opened) referred_ = true;
    return opened;
}

Status EntryContent::measure(const Extent& extent) {
    while (!isMeasured(extent)) {
        const bool nearFront = extent.end() - starts_[front_] <= starts_[back_] - extent.offset;
        Status measured = nearFront ? measureFront() : measureBack();
        // There is damage on the way, but the bytes may be between it and the other end.
        const bool beyond = nearFront ? extent.offset > starts_[front_] : extent.end() < starts_[back_];
        if (!measured && beyond) measured = nearFront ? measureBack() : measureFront();
        if (!measured) return measured;
    }
    return extent.end() == entry_.size ? checkEnd() : Status();
}

// At the place where front and back meet, they must say the same.
Status EntryContent::measureFront() {
    const auto measured = scan(front_);
    if (!measured) return measured.error();
    const std::uint64_t left = starts_[back_] - starts_[front_];
    if (measured->size > left || (front_ + 1 == back_ && measured->size != left)) return error(indexMismatch);
    starts_[front_ + 1] = starts_[front_] + measured->size;
    ++front_;
    return {};
}

Status EntryContent::measureBack() {
    const auto measured = scan(back_ - 1);
    if (!measured) return measured.error();
    const std::uint64_t left = starts_[back_] - starts_[front_];
    if (measured->size > left || (front_ + 1 == back_ && measured->size != left)) return error(indexMismatch);
    starts_[back_ - 1] = starts_[back_] - measured->size;
    --back_;
    return {};
}

bool EntryContent::isMeasured(const Extent& extent) const {
    return front_ == back_ || extent.end() <= starts_[front_] || extent.offset >= starts_[back_];
}

Status EntryContent::checkEnd() {
    if (endChecked_) return {};
    const auto tail = readTail();
    if (!tail) return tail.error();
    if (tail->contentOf || (tail->totals && tail->totals->size != entry_.size) || (referred_ && tail->unreadable))
        return error("the end of the entry is malformed");
    endChecked_ = true;
    return {};
}

// The record may begin in an earlier block than the last one.
Result<EntryTail> EntryContent::readTail() {
    std::size_t number = blocks() - 1;
    auto last = scan(number);
    if (!last) return last.error();
    while (number > 0 && *last->end == 0) {
        auto before = scan(number - 1);
        if (!before) return before.error();
        if (!before->end) break;
        last = before;
        --number;
    }
    RecordJoiner joiner;
    for (std::size_t offset = *last->end; number < blocks(); ++number, offset = 0) {
        const auto next = block(number);
        if (!next) return next.error();
        const auto record = RecordCursor((*next)->plain, offset).next();
        if (!record || joiner.add(*record, maxEndLength) == RecordJoiner::State::damaged) break;
    }
    auto tail = number == blocks() && !joiner.joining() ? decodeEntryTail(joiner.payload()) : std::nullopt;
    if (!tail) return error("the end of the entry is malformed");
    return std::move(*tail);
}

Result<EntryContent::Scan> EntryContent::scan(std::size_t number) {
    const auto opened = block(number);
    if (!opened) return opened.error();
    Scan found;
    PartCursor parts(*opened, offsetIn(number));
    while (const auto part = parts.next()) {
        if (part->length > maxContentSize - found.size) return error("the content is too long");
        found.size += part->length;
    }
    if (parts.malformed()) return error("the content is malformed");
    found.end = parts.end();
    const bool isLast = number + 1 == blocks();
    const bool ends = parts.end() && !parts.endContinues();
    if (ends != isLast) return error(indexMismatch);
    return found;
}

std::vector<EntryContent::Piece> EntryContent::piecesOf(const Extent& extent) const {
    std::vector<Piece> pieces;
    const bool inFront = extent.end() <= starts_[front_];
    std::span<const std::uint64_t> known = starts_;
    if (front_ != back_) known = inFront ? known.first(front_ + 1) : known.subspan(back_);
    const auto* start = &*(std::ranges::upper_bound(known, extent.offset) - 1);
    for (; *start < extent.end(); ++start)
        if (start[0] != start[1])  // otherwise, there is only padding in that block
            pieces.push_back({static_cast<std::size_t>(start - starts_.data()), {*start, start[1] - start[0]}});
    return pieces;
}

Status EntryContent::addParts(const Piece& piece, const Extent& extent, std::vector<Part>& parts) {
    const auto opened = block(piece.number);
    if (!opened) return opened.error();
    PartCursor cursor(*opened, offsetIn(piece.number));
    const std::uint64_t end = std::min(piece.extent.end(), extent.end());
    for (std::uint64_t start = piece.extent.offset; start < end;) {
        auto part = cursor.next();
        if (!part) return error("the content has changed");
        const Extent whole{start, part->length};
        start += part->length;
        if (start > extent.offset) parts.push_back(cut(std::move(*part), whole, extent));
    }
    return {};
}

Result<BlockPointer> EntryContent::block(std::size_t number) {
    auto opened = blocks_.get(first_.block + number);
    if (opened->fault) return blockError(*opened);
    return opened;
}

Error EntryContent::blockError(const OpenedBlock& block) const {
    return error("block " + std::to_string(block.place.sequence) + ": " + block.fault->text);
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
