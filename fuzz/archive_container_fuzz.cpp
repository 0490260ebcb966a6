// A whole archive whose seal opens to anything. The header is mended, the rest is the fuzzer's.
#include "checking_sink.h"
#include "qvx/archive_reader.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

// Blocks are all of one size, but for the last, which is shorter.
void checkFirstBlock(Bytes bytes) {
    const auto header = decodeBlockHeader(bytes);
    if (!header || bytes.size() < blockHeaderSize + header->sealedLength) return;
    bytes = bytes.subspan(blockHeaderSize, header->sealedLength);
    ByteVector sealed(bytes.begin(), bytes.end()), plain;
    if (BlockDecoder({}).decode(*header, sealed, {}, plain) == BlockFault::none)
        require(header->flags & blockLast ? plain.size() < blockSize : plain.size() == blockSize);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    checkFirstBlock({data + 1, data + size});
    const auto header = encodePlainHeader({1U + data[0] % 4, {}, {}});
    ByteVector bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), data + 1, data + size);
    ReadFault fault;
    auto file = archiveFile(bytes, fault);
    require(file != nullptr);
    const auto reader = ArchiveReader::open(std::move(file), nullptr, fault);

    CheckingSink sink;
    const bool whole = reader->readAll(sink, fault);
    std::uint64_t listed = 0;
    const auto count = [&](std::uint64_t number, const IndexEntry& entry) {
        require(number == listed++ && isEntryPath(entry.path));
        return listed < 100000;
    };
    const bool indexed = reader->list(count, fault);
    require(!whole || indexed);

    // What is whole is the same whichever way it is read.
    CheckingSink chosen;
    std::uint64_t taken = 0;
    const auto everything = [](std::uint64_t number, std::string_view) { return number < 1000; };
    const bool read = reader->readChosen(everything, chosen, taken, fault);
    require(!whole || (read && taken == std::min<std::uint64_t>(listed, 1000)));
    require(!whole || std::equal(chosen.seen.begin(), chosen.seen.end(), sink.seen.begin()));

    CheckingSink saved;
    std::uint64_t faults = 0;
    if (reader->salvage(saved, [&](const ReadFault&) { ++faults; }))
        require(!saved.open() && (!whole || (faults == 0 && saved.seen == sink.seen)));
    return 0;
}
