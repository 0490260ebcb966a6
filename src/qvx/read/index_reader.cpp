#include "qvx/read/index_reader.h"

#include <algorithm>

#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

namespace {

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
    if (!trailer || trailer->blocks - 1 != header->sequence || trailer->rootSequence >= header->sequence) return cut;
    return *trailer;
}

}  // namespace

Result<std::unique_ptr<ArchiveIndex>, ReadFault> ArchiveIndex::load(const ArchiveFile& file, const MessageKeys& keys) {
    const auto trailer = readTrailer(file, keys);
    if (!trailer) return trailer.error();
    std::unique_ptr<ArchiveIndex> index(new ArchiveIndex(file, keys));
    if (auto root = index->readRoot(file, keys, *trailer); !root) return root.error();
    if (index->root_.entries == trailer->entries && index->fillMap(file, *trailer) && index->partsAreInOrder())
        return index;
    return readFault("the root of the index does not fit the archive");
}

// The blocks of the root follow one another and need no leader.
Result<void, ReadFault> ArchiveIndex::readRoot(const ArchiveFile& file, const MessageKeys& keys,
                                               const Trailer& trailer) {
    BlockOpener opener(file, keys);
    RecordJoiner joiner;
    // A position that overflows is not in the file, or does not fit the lengths in the root.
    BlockPlace place{trailer.rootSequence, file.blocksBegin() + trailer.rootPosition};
    const auto malformed = [&] { return blockFault(place, "the root of the index is malformed"); };
    for (; place.sequence < trailer.blocks - 1; ++place.sequence) {
        auto block = unopenedBlock(file, place);
        opener.open(block, [] { return BlockPointer(); });
        if (block.fault) return *block.fault;
        const auto record = RecordCursor(block.plain).next();
        if (!record || record->type != RecordType::root || block.header.leads()) return malformed();
        // The root is smaller than the file: it has fewer bytes for each block and index part than these take in the
        // file.
        const auto state = joiner.add(*record, static_cast<std::size_t>(file.size()));
        if (state == RecordJoiner::State::damaged) return malformed();
        if (state == RecordJoiner::State::complete) {
            auto root = decodeRoot(joiner.payload());
            if (!root) return malformed();
            root_ = std::move(*root);
            return {};
        }
        place.position += blockHeaderSize + block.header.sealedLength;
    }
    return malformed();
}

// The root states only lengths. The positions follow from them, and the blocks must end where the root begins.
bool ArchiveIndex::fillMap(const ArchiveFile& file, const Trailer& trailer) {
    // One length for each block before the root.
    if (root_.sealedLengths.size() != trailer.rootSequence) return false;
    BlockPlace place{0, file.blocksBegin()};
    for (const auto length : root_.sealedLengths) {
        map_.add(place);
        ++place.sequence;
        place.position += blockHeaderSize + length;
    }
    return place.position == file.blocksBegin() + trailer.rootPosition;
}

// partOf() relies on this order, and each part must cover at least one entry.
bool ArchiveIndex::partsAreInOrder() const {
    std::uint64_t minFirst = 0;
    for (const auto& part : root_.parts) {
        const bool first = &part == &root_.parts.front();
        if (first ? part.first != 0 : part.first < minFirst) return false;
        minFirst = part.first + 1;
    }
    return root_.parts.empty() ? root_.entries == 0 : minFirst <= root_.entries;
}

Result<void, ReadFault> ArchiveIndex::visitPart(std::size_t part, const Visitor& visit) {
    const IndexPartPlace& place = root_.parts[part];
    const std::uint64_t end = part + 1 < root_.parts.size() ? root_.parts[part + 1].first : root_.entries;
    const auto payload = readPart(place);
    if (!payload) return payload.error();
    IndexPartDecoder decoder(*payload);
    std::uint64_t number = place.first;
    // A part that covers other entries than the root says would give them wrong numbers.
    if (decoder.first() == number && decoder.count() == end - number) {
        while (const IndexEntry* entry = decoder.next())
            if (!visit(number++, *entry)) return {};
        if (!decoder.damaged()) return {};
    }
    ReadFault fault = readFault("a part of the index is malformed");
    fault.block = place.block;
    return fault;
}

std::size_t ArchiveIndex::partOf(std::uint64_t number) const {
    if (number >= root_.entries) return root_.parts.size();
    const auto next = std::upper_bound(root_.parts.begin(), root_.parts.end(), number,
                                       [](std::uint64_t key, const IndexPartPlace& part) { return key < part.first; });
    return static_cast<std::size_t>(next - root_.parts.begin()) - 1;
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
