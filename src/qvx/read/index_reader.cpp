#include "qvx/read/index_reader.h"

#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxHinted = 12;     // blocks
constexpr std::uint64_t maxPartBlocks = 4;  // that a part is expected to have; a longer one is read without a hint

// The last block has a fixed length, so it is found from the end of the file. Its header states its sequence number.
Result<Trailer, ReadFault> readTrailer(const ArchiveFile& file, const MessageKeys& keys) {
    const ReadFault cut = readFault("the end of the archive is cut or damaged");
    if (file.blocksEnd() - file.blocksBegin() < lastBlockSize) return cut;
    const std::uint64_t position = file.blocksEnd() - lastBlockSize;
    const auto header = readBlockHeader(file, position);
    if (!header || !header->last() || header->sealedLength != lastBlockSize - blockHeaderSize) return cut;
    OpenedBlock block{{header->sequence, position}, *header, {}};
    // The last block is never compressed, so it needs no leader.
    BlockOpener(file, keys).open(block, [] { return BlockPointer(); });
    if (block.fault) return *block.fault;
    const auto record = RecordCursor(block.plain).next();
    const auto trailer = record && record->type == RecordType::trailer ? decodeTrailer(record->payload) : std::nullopt;
    // A seal does not make the content trusted: everyone with the public key can seal an archive. So numbers in it are
    // checked before they are used.
    if (!trailer || trailer->blocks > maxBlocks || trailer->blocks - 1 != header->sequence ||
        trailer->rootSequence >= header->sequence || trailer->rootPosition > file.size() ||
        trailer->entries > maxEntries)
        return cut;
    return *trailer;
}

// The root ends in the block before the last one, and only padding follows it.
bool endsWithRoot(RecordCursor& cursor, const OpenedBlock& block, const Trailer& trailer, std::uint64_t lastBlock) {
    return !cursor.next() && !cursor.damaged() && block.place.sequence + 2 == trailer.blocks &&
           block.place.position + blockHeaderSize + block.header.sealedLength == lastBlock;
}

}  // namespace

Result<std::unique_ptr<ArchiveIndex>, ReadFault> ArchiveIndex::load(const ArchiveFile& file, const MessageKeys& keys) {
    const auto trailer = readTrailer(file, keys);
    if (!trailer) return trailer.error();
    std::unique_ptr<ArchiveIndex> index(new ArchiveIndex(file, keys));
    if (auto root = index->readRoot(file, keys, *trailer); !root) return root.error();
    return index;
}

// The blocks of the root follow one another and need no leader.
Result<void, ReadFault> ArchiveIndex::readRoot(const ArchiveFile& file, const MessageKeys& keys,
                                               const Trailer& trailer) {
    BlockOpener opener(file, keys);
    RecordJoiner joiner;
    const std::size_t limit = maxRootLength(trailer.entries, trailer.rootSequence);
    // A position that overflows is not in the file, or does not fit the lengths in the root.
    BlockPlace place{trailer.rootSequence, file.blocksBegin() + trailer.rootPosition};
    file.willRead(place.position, file.blocksEnd());
    for (; place.sequence < trailer.blocks - 1; ++place.sequence) {
        auto block = unopenedBlock(file, place);
        opener.open(block, [] { return BlockPointer(); });
        if (block.fault) return *block.fault;
        RecordCursor cursor(block.plain);
        const auto record = cursor.next();
        if (!record || record->type != RecordType::root || block.header.leads()) break;
        const auto state = joiner.add(*record, limit);
        if (state == RecordJoiner::State::damaged) break;
        if (state == RecordJoiner::State::complete) {
            if (!endsWithRoot(cursor, block, trailer, file.blocksEnd() - lastBlockSize)) break;
            if (useRoot(joiner.payload(), file, trailer)) return {};
            return readFault("the root of the index does not fit the archive");
        }
        place.position += blockHeaderSize + block.header.sealedLength;
    }
    return blockFault(place, "the root of the index is malformed");
}

// The root states only lengths. The positions follow from them, and the blocks must end where the root begins.
bool ArchiveIndex::useRoot(Bytes payload, const ArchiveFile& file, const Trailer& trailer) {
    RootDecoder root(payload);
    entries_ = root.entries();
    while (const auto part = root.nextPart()) parts_.push_back(*part);
    BlockPlace place{0, file.blocksBegin()};
    while (const auto length = root.nextLength()) {
        map_.add(place);
        ++place.sequence;
        place.position += blockHeaderSize + *length;
    }
    return root.complete() && entries_ == trailer.entries && place.sequence == trailer.rootSequence &&
           place.position == file.blocksBegin() + trailer.rootPosition;
}

Result<void, ReadFault> ArchiveIndex::visit(const Visitor& visit) {
    bool continues = true;
    const auto visitOne = [&](std::uint64_t number, const IndexEntry& entry) {
        continues = visit(number, entry);
        return continues;
    };
    for (std::size_t part = 0; continues && part < parts_.size(); ++part)
        if (auto visited = visitPart(part, visitOne); !visited) return visited;
    return {};
}

Result<void, ReadFault> ArchiveIndex::visitPart(std::size_t part, const Visitor& visit) {
    const IndexPartPlace& place = parts_[part];
    hint(part);
    const auto payload = readPart(place);
    if (!payload) return payload.error();
    IndexPartDecoder decoder(*payload);
    std::uint64_t number = place.first;
    // A part that covers other entries than the root says would give them wrong numbers.
    if (decoder.first() == number && decoder.count() == partEnd(part) - number) {
        const IndexEntry* entry = decoder.next();
        for (; entry && isBefore(*entry, place.place()); entry = decoder.next())
            if (!visit(number++, *entry)) return {};
        if (!entry && !decoder.damaged()) return {};
    }
    ReadFault fault = readFault("a part of the index is malformed");
    fault.block = place.block;
    return fault;
}

// The parts from this one on whose blocks follow one another. In most archives these are all parts.
void ArchiveIndex::hint(std::size_t part) {
    if (part < hinted_) return;
    const std::uint64_t first = parts_[part].block;
    std::uint64_t end = first;
    for (; part < parts_.size() && end - first < maxHinted && parts_[part].block <= end; ++part)
        end = partEndBlock(part);
    willReadBlocks(file_, map_, first, end);
    hinted_ = part;
}

// At least the block after the one in which the part begins; more only if the part may go on into it.
std::uint64_t ArchiveIndex::partEndBlock(std::size_t part) const {
    const std::uint64_t block = parts_[part].block;
    const std::uint64_t next = part + 1 < parts_.size() ? parts_[part + 1].block : map_.end();
    return next > block && next - block <= maxPartBlocks ? next : block + 1;
}

Result<std::vector<std::uint8_t>, ReadFault> ArchiveIndex::readPart(const IndexPartPlace& place) {
    RecordJoiner joiner;
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        // Ends at the latest after the last block: RandomBlocks has a fault for a block that does not exist.
        const auto block = blocks_.get(sequence);
        if (block->fault) return *block->fault;
        const auto record = RecordCursor(block->plain, offset).next();
        const auto state = record && record->type == RecordType::index ? joiner.add(*record, maxIndexLength)
                                                                       : RecordJoiner::State::damaged;
        if (state == RecordJoiner::State::damaged) return blockFault(block->place, "a part of the index is malformed");
        if (state == RecordJoiner::State::complete)
            return std::vector<std::uint8_t>(joiner.payload().begin(), joiner.payload().end());
    }
}

}  // namespace tarnwick::qvx
