// The payloads of records: what decodes must encode to the same bytes, or for index parts to the same entries.
#include "platform/archive/block_codec.h"
#include "platform/archive/entry_codec.h"
#include "require.h"

using namespace tarnwick::qvx;

namespace {

using ByteVector = std::vector<std::uint8_t>;

template <typename Value>
void requireSame(Bytes payload, const std::optional<Value>& value, void (*encode)(const Value&, ByteVector&)) {
    if (!value) return;
    ByteVector encoded;
    encode(*value, encoded);
    require(std::equal(encoded.begin(), encoded.end(), payload.begin(), payload.end()));
}

struct Part {
    std::uint64_t count = 0;
    bool damaged = false;
    ByteVector encoded;
};

Part recode(Bytes payload) {
    Part part;
    IndexPartDecoder decoder(payload);
    IndexPartEncoder encoder;
    while (const IndexEntry* entry = decoder.next()) {
        require(isEntryPath(entry->path) && entry->offset < blockSize && entry->mode <= 07777);
        encoder.add(*entry);
        ++part.count;
    }
    part.damaged = decoder.damaged();
    require(part.damaged || part.count == decoder.count());
    encoder.finish(part.encoded);
    return part;
}

void checkRecords(Bytes block) {
    RecordCursor cursor(block);
    std::size_t before = 0;
    while (const auto record = cursor.next()) {
        require(cursor.offset() > before && cursor.offset() <= block.size());
        require(record->type != RecordType::pad && record->payload.size() <= cursor.offset() - before);
        before = cursor.offset();
    }
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
        case 4: {
            const Part part = recode(payload);
            if (part.damaged) break;
            const Part again = recode(part.encoded);
            require(!again.damaged && again.count == part.count);
            break;
        }
        case 5:
            if (const auto header = decodeBlockHeader(payload))
                require(std::ranges::equal(encodeBlockHeader(*header), payload.first(blockHeaderSize)));
            break;
        default: checkRecords(payload);
    }
    return 0;
}
