// The file header and its copy in the footer, whole or damaged. The seals are not checked.
#include "checking_sink.h"
#include "qvx/archive_reader.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto open = [&](ArchiveReader::Opening opening) {
        return ArchiveReader::open(archiveFile({data, data + size}), nullptr, opening);
    };
    const auto intact = open(ArchiveReader::Opening::intact);
    const auto damaged = open(ArchiveReader::Opening::salvage);
    require(!intact || damaged);
    if (!damaged) return 0;

    CheckingSink all, saved;
    bool faults = false;
    const bool read = intact && (*intact)->readAll(all);
    require((*damaged)->salvage(saved, [&](const ReadFault&) { faults = true; }) && !saved.open());
    require(!read || (!faults && saved.seen == all.seen));
    return 0;
}
