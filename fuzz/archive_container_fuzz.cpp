// A whole archive whose seal opens to anything. The header is mended, the rest is the fuzzer's.
#include <sys/mman.h>
#include <unistd.h>

#include "checking_sink.h"
#include "platform/archive/archive_reader.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

FileDescriptor mendedFile(const std::uint8_t* data, std::size_t size) {
    const auto header = encodePlainHeader({1U + data[0] % 4, {}, {}});
    FileDescriptor file(memfd_create("archive", MFD_CLOEXEC));
    require(pwrite(file.get(), header.data(), header.size(), 0) == static_cast<ssize_t>(header.size()));
    require(pwrite(file.get(), data + 1, size - 1, plainHeaderSize) == static_cast<ssize_t>(size - 1));
    return file;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    ReadFault fault;
    auto file = ArchiveFile::open(mendedFile(data, size), fault);
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

    CheckingSink chosen;
    std::uint64_t taken = 0;
    const auto everything = [](std::uint64_t number, std::string_view) { return number < 1000; };
    const bool read = reader->readChosen(everything, chosen, taken, fault);
    require(!whole || (read && taken == std::min<std::uint64_t>(listed, 1000)));

    CheckingSink saved;
    std::uint64_t faults = 0;
    if (reader->salvage(saved, [&](const ReadFault&) { ++faults; })) require(!saved.open() && (!whole || faults == 0));
    return 0;
}
