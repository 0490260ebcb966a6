#include "qvx/read/index_reader.h"

#include <algorithm>

#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

namespace {

ReadFault indexFault(std::string what) { return {std::move(what), std::nullopt, std::nullopt, std::nullopt}; }

// The last block has a fixed length, so it is found from the end of the file. Its header states its sequence number.
std::optional<Trailer> readTrailer(const ArchiveFile& file, const HpkeKeys& keys, ReadFault& fault) {
    fault = indexFault("the end of the archive is cut or damaged");
    if (file.size() < plainHeaderSize + lastBlockSize) return std::nullopt;
    const std::uint64_t position = file.size() - lastBlockSize;
    std::string what;
    const auto header = readBlockHeader(file, position, what);
    if (!header || !(header->flags & blockLast) || header->sealedLength != lastBlockSize - blockHeaderSize)
        return std::nullopt;
    OpenedBlock block{{header->sequence, position}, {}, {}, std::nullopt};
    // The last block is never compressed, so it needs no leader.
    BlockOpener(file, keys).open(block, [] { return BlockPointer(); });
    if (block.fault) {
        fault = *block.fault;
        return std::nullopt;
    }
    const auto record = RecordCursor(block.plain).next();
    const auto trailer = record && record->type == RecordType::trailer ? decodeTrailer(record->payload) : std::nullopt;
    if (!trailer || trailer->blocks - 1 != header->sequence || trailer->rootSequence >= header->sequence)
        return std::nullopt;
    return trailer;
}

}  // namespace

std::unique_ptr<ArchiveIndex> ArchiveIndex::load(const ArchiveFile& file, const HpkeKeys& keys, ReadFault& fault) {
    const auto trailer = readTrailer(file, keys, fault);
    if (!trailer) return nullptr;
    std::unique_ptr<ArchiveIndex> index(new ArchiveIndex(file, keys));
    if (!index->readRoot(file, keys, *trailer, fault)) return nullptr;
    if (index->root_.entries == trailer->entries && index->fillMap(*trailer) && index->partsAreInOrder()) return index;
    fault = indexFault("the root of the index does not fit the archive");
    return nullptr;
}

// The blocks of the root follow one another and need no leader.
bool ArchiveIndex::readRoot(const ArchiveFile& file, const HpkeKeys& keys, const Trailer& trailer, ReadFault& fault) {
    BlockOpener opener(file, keys);
    RecordJoiner joiner;
    BlockPlace place{trailer.rootSequence, trailer.rootPosition};
    for (; place.sequence < trailer.blocks - 1; ++place.sequence) {
        OpenedBlock block{place, {}, {}, std::nullopt};
        opener.open(block, [] { return BlockPointer(); });
        if (block.fault) {
            fault = *block.fault;
            return false;
        }
        fault = blockFault(place, "the root of the index is malformed");
        const auto record = RecordCursor(block.plain).next();
        if (!record || record->type != RecordType::root) return false;
        // The root is smaller than the file: it has fewer bytes for each block and index part than these take in the
        // file.
        const auto state = joiner.take(*record, static_cast<std::size_t>(file.size()));
        if (state == RecordJoiner::State::damaged) return false;
        if (state == RecordJoiner::State::whole) {
            auto root = decodeRoot(joiner.payload());
            if (root) root_ = std::move(*root);
            return root.has_value();
        }
        place.position += blockHeaderSize + block.header.sealedLength;
    }
    return false;
}

bool ArchiveIndex::fillMap(const Trailer& trailer) {
    if (root_.sealedLengths.size() != trailer.rootSequence) return false;
    BlockPlace place{0, plainHeaderSize};
    for (const auto length : root_.sealedLengths) {
        map_.add(place);
        ++place.sequence;
        place.position += blockHeaderSize + length;
    }
    return place.position == trailer.rootPosition;
}

// partOf() relies on this order, and each part must cover at minFirst one entry.
bool ArchiveIndex::partsAreInOrder() const {
    std::uint64_t minFirst = 0;
    for (const auto& part : root_.parts) {
        const bool first = &part == &root_.parts.front();
        if (first ? part.first != 0 : part.first < minFirst) return false;
        minFirst = part.first + 1;
    }
    return root_.parts.empty() ? root_.entries == 0 : minFirst <= root_.entries;
}

bool ArchiveIndex::visitPart(std::size_t part, const Visitor& visit, ReadFault& fault) {
    const IndexPartPlace& place = root_.parts[part];
    const std::uint64_t end = part + 1 < root_.parts.size() ? root_.parts[part + 1].first : root_.entries;
    std::vector<std::uint8_t> payload;
    if (!readPart(place, payload, fault)) return false;
    IndexPartDecoder decoder(payload);
    std::uint64_t number = place.first;
    if (decoder.first() == number && decoder.count() == end - number) {
        while (const IndexEntry* entry = decoder.next())
            if (!visit(number++, *entry)) return true;
        if (!decoder.damaged()) return true;
    }
    fault = indexFault("a part of the index is malformed");
    fault.block = place.block;
    return false;
}

std::size_t ArchiveIndex::partOf(std::uint64_t number) const {
    if (number >= root_.entries) return root_.parts.size();
    const auto behind =
        std::upper_bound(root_.parts.begin(), root_.parts.end(), number,
                         [](std::uint64_t key, const IndexPartPlace& part) { return key < part.first; });
    return static_cast<std::size_t>(behind - root_.parts.begin()) - 1;
}

bool ArchiveIndex::readPart(const IndexPartPlace& place, std::vector<std::uint8_t>& payload, ReadFault& fault) {
    RecordJoiner joiner;
    std::size_t offset = place.offset;
    for (std::uint64_t sequence = place.block;; ++sequence, offset = 0) {
        const auto block = blocks_.get(sequence);
        if (block->fault) {
            fault = *block->fault;
            return false;
        }
        const auto record = RecordCursor(block->plain, offset).next();
        const auto state = record && record->type == RecordType::index ? joiner.take(*record, maxIndexLength)
                                                                       : RecordJoiner::State::damaged;
        if (state == RecordJoiner::State::whole) {
            payload.assign(joiner.payload().begin(), joiner.payload().end());
            return true;
        }
        fault = blockFault(block->place, "a part of the index is malformed");
        if (state == RecordJoiner::State::damaged) return false;
    }
}

}  // namespace tarnwick::qvx
