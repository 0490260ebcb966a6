// A whole archive whose seals are not checked. Header and footer are always valid, the blocks are the fuzzer's.
#include "checking_sink.h"
#include "qvx/archive_reader.h"
#include "qvx/crypto/ssh_key.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FileHeader header;
    header.recipients.push_back({sshFingerprint(*publicPointOf(nullptr)), {}});
    auto bytes = encodeFileHeader(header);
    const auto footer = encodeFooter(bytes);
    bytes.insert(bytes.end(), data, data + size);
    bytes.insert(bytes.end(), footer.begin(), footer.end());
    const auto opened = ArchiveReader::open(archiveFile(bytes), nullptr);
    ArchiveReader& reader = **opened;

    CheckingSink sink;
    const bool intact = static_cast<bool>(reader.readAll(sink));
    std::uint64_t listed = 0;
    const auto count = [&](std::uint64_t number, const IndexEntry& entry) {
        require(number == listed++ && isEntryPath(entry.path));
        return listed < 100000;
    };
    const bool indexed = static_cast<bool>(reader.list(count));
    require(!intact || indexed);

    std::uint64_t described = 0;
    const auto describe = [&](const StoredMetadata& metadata) {
        require(isEntryPath(metadata.head.path) && metadata.target.size() <= maxTargetLength);
        ++described;
    };
    const auto choice = [](std::uint64_t number, std::string_view) { return number < 1000; };
    const bool known = static_cast<bool>(reader.readMetadata(choice, describe));

    // The entries of an intact archive are the same in whichever way it is read.
    if (intact) {
        CheckingSink chosen;
        require(known && described == std::min<std::uint64_t>(listed, 1000));
        require(reader.readChosen(choice, chosen) && chosen.seen.size() == std::min<std::uint64_t>(listed, 1000));
        require(std::equal(chosen.seen.begin(), chosen.seen.end(), sink.seen.begin()));
    }

    // A reference with an odd number may be to an entry that is not chosen: then it is read last.
    CheckingSink odd;
    const auto oddChoice = [](std::uint64_t number, std::string_view) { return number % 2 == 1; };
    require(reader.readChosen(oddChoice, odd) || !intact);
    for (const auto& entry : intact ? odd.seen : std::vector<std::string>())
        require(std::ranges::find(sink.seen, entry) != sink.seen.end());

    CheckingSink saved;
    if (reader.salvage(saved, [&](const ReadFault&) { require(!intact); }))
        require(!saved.open() && (!intact || saved.seen == sink.seen));
    return 0;
}
