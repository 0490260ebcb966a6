// The payloads of records: what decodes must encode to the same bytes.
#include "decoded_root.h"
#include "qvx/format/block_codec.h"
#include "qvx/format/entry_codec.h"
#include "require.h"

using namespace tarnwick::qvx;

namespace {

using ByteVector = std::vector<std::uint8_t>;

template <typename Value>
void requireSame(Bytes payload, const std::optional<Value>& value, void (*encode)(const Value&, ByteVector&)) {
    ByteVector encoded;
    if (value) encode(*value, encoded);
    require(!value || std::ranges::equal(encoded, payload));
}

void checkPart(Bytes payload) {
    IndexPartDecoder decoder(payload);
    std::uint64_t count = 0;
    for (; const IndexEntry* entry = decoder.next(); ++count)
        require(isEntryPath(entry->path) && entry->offset < blockSize && entry->mode <= 07777);
    require(decoder.damaged() || count == decoder.count());
}

// All that stands in a block is records, and padding of one form up to its end.
void checkRecords(Bytes block) {
    RecordCursor cursor(block);
    std::size_t end = 0;
    for (std::optional<Record> record; (record = cursor.next()); end = cursor.offset()) {
        require(cursor.offset() == end + recordHeaderSize + record->payload.size());
        require(record->type <= RecordType::trailer || isAddition(record->type));
        const bool full = block.size() - cursor.offset() < recordHeaderSize;
        require(!record->continues || (record->type >= RecordType::end && full));
    }
    ByteVector padding(std::max(block.size() - end, recordHeaderSize));
    const auto length = static_cast<std::uint32_t>(padding.size() - recordHeaderSize);
    encodeRecordHeader({RecordType::pad, false, length}, padding.data());
    padding.resize(block.size() - end);
    require(cursor.damaged() || std::ranges::equal(block.subspan(end), padding));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Bytes payload(data + 1, size - 1);
    switch (data[0] % 7) {
        case 0: requireSame(payload, decodeEntryHead(payload), encodeEntryHead); break;
        case 1: requireSame(payload, decodeEntryTail(payload), encodeEntryTail); break;
        case 2: requireSame(payload, decodeRoot(payload), encodeRoot); break;
        case 3:
            if (const auto trailer = decodeTrailer(payload))
                require(std::ranges::equal(encodeTrailer(*trailer), payload));
            break;
        case 4: checkPart(payload); break;
        case 5:
            if (const auto header = decodeBlockHeader(payload))
                require(std::ranges::equal(encodeBlockHeader(*header), payload.first(blockHeaderSize)));
            break;
        default: checkRecords(payload);
    }
    return 0;
}
