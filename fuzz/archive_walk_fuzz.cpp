// The records of an archive, in blocks as short as the fuzzer likes: two bytes of length, then the plain block.
#include "checking_sink.h"
#include "platform/archive/archive_walk.h"
#include "platform/archive/salvage.h"

#include <sys/mman.h>
#include <unistd.h>

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

std::vector<OpenedBlock> blocksOf(Bytes input) {
    std::vector<OpenedBlock> blocks;
    while (input.size() >= 2) {
        const std::size_t length = std::min<std::size_t>(input[0] + 256U * input[1], input.size() - 2);
        OpenedBlock block;
        block.place = {blocks.size(), plainHeaderSize + 100 * blocks.size()};
        block.header = {84, 0, blocks.size()};
        block.plain.assign(input.begin() + 2, input.begin() + 2 + static_cast<std::ptrdiff_t>(length));
        blocks.push_back(std::move(block));
        input = input.subspan(2 + length);
    }
    if (!blocks.empty()) blocks.back().header.flags = blockLast;
    return blocks;
}

// A file that has nothing but a header: content is not read again from here.
std::unique_ptr<ArchiveFile> emptyFile() {
    FileDescriptor descriptor(memfd_create("archive", MFD_CLOEXEC));
    const auto header = encodePlainHeader({2, {}, {}});
    require(pwrite(descriptor.get(), header.data(), header.size(), 0) == static_cast<ssize_t>(header.size()));
    require(ftruncate(descriptor.get(), 1 << 20) == 0);
    ReadFault fault;
    return ArchiveFile::open(std::move(descriptor), fault);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::unique_ptr<ArchiveFile> file = emptyFile();
    const std::vector<OpenedBlock> blocks = blocksOf({data, size});
    CheckingSink strict;
    ArchiveWalk walk(*file, HpkeKeys(), strict);
    bool goOn = true;
    for (std::size_t i = 0; goOn && i < blocks.size(); ++i) goOn = walk.take(blocks[i]);
    if (!goOn) require(walk.stopped() || !walk.fault().what.empty());
    if (goOn && walk.complete()) require(!strict.open());

    // Leniently, and with every third block lost.
    CheckingSink lenient;
    const BlockMap map;
    SalvageWalk salvage(
        *file, HpkeKeys(), map, lenient, [](const ReadFault&) {}, [](std::uint64_t, std::uint64_t) {});
    for (const auto& block : blocks)
        if (block.place.sequence % 3 != 2 && !salvage.take(block)) return 0;
    salvage.end();
    require(!lenient.open());
    return 0;
}
