// The records of an archive, in blocks as short as the fuzzer likes: two bytes of length, then the plain block.
#include "checking_sink.h"
#include "qvx/read/salvage_reader.h"
#include "qvx/read/sequential_reader.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

constexpr std::uint32_t blockDistance = 100;  // in the file, as the root of an intact archive states it

std::vector<OpenedBlock> blocksOf(Bytes input) {
    std::vector<OpenedBlock> blocks;
    while (input.size() >= 2) {
        const Bytes plain = input.subspan(2, std::min<std::size_t>(input[0] + 256U * input[1], input.size() - 2));
        OpenedBlock block;
        block.place = {blocks.size(), headerSize(1) + blockDistance * blocks.size()};
        block.header = {blockDistance - blockHeaderSize, 0, blocks.size()};
        block.plain.assign(plain.begin(), plain.end());
        blocks.push_back(std::move(block));
        input = input.subspan(2 + plain.size());
    }
    if (!blocks.empty()) blocks.back().header = {lastBlockSize - blockHeaderSize, blockLast, blocks.size() - 1};
    return blocks;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Without blocks: content that entries refer to cannot be read from it.
    static const std::unique_ptr<ArchiveFile> file = archiveFile(ByteVector(1 << 20));
    const std::vector<OpenedBlock> blocks = blocksOf({data, size});
    CheckingSink strict;
    SequentialReader reader(*file, MessageKeys(), strict);
    ReadOutcome outcome;
    for (auto block = blocks.begin(); outcome && block != blocks.end(); ++block) outcome = reader.consume(*block);
    require(!outcome || !reader.finish() || !strict.open());

    // Leniently, and with every third block lost.
    CheckingSink lenient;
    const BlockMap map;
    SalvageReader salvage(*file, MessageKeys(), map, lenient, [](const ReadFault&) {});
    for (const auto& block : blocks)
        if (block.place.sequence % 3 != 2 && !salvage.consume(block)) return 0;
    salvage.finish();
    require(!lenient.open());
    return 0;
}
