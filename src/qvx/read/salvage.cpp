#include "qvx/read/salvage.h"

#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

namespace {

// A false header costs an attempt to unseal as many bytes as it claims. When the attempts add up to this many times the
// size of the file, somebody has planted such headers to keep the reader busy, and the scan ends.
constexpr std::uint64_t maxFutileFactor = 16;

class Scanner {
public:
    Scanner(const ArchiveFile& file, const HpkeKeys& keys) : file_(file), cipher_(keys, HpkeCipher::Direction::open) {}

    std::vector<BlockPlace> run() {
        std::uint64_t position = plainHeaderSize;
        while (position < file_.size() && futile_ / maxFutileFactor <= file_.size()) {
            if (const auto length = tryBlock(position)) {
                position += *length;
            } else {
                position = findMagic(position + 1);
            }
        }
        return std::move(found_);
    }

private:
    // The length of the block at `position`, header included; nothing when no block can be unsealed there.
    std::optional<std::uint64_t> tryBlock(std::uint64_t position) {
        std::string what;
        const auto header = readBlockHeader(file_, position, what);
        if (!header || header->sequence > file_.size() / blockHeaderSize) return std::nullopt;
        sealed_.resize(header->sealedLength);
        if (!file_.read(position + blockHeaderSize, sealed_, what)) return std::nullopt;
        const MutableBytes stored = MutableBytes(sealed_).first(sealed_.size() - tagSize);
        const std::span<const std::uint8_t, tagSize> tag(sealed_.data() + stored.size(), tagSize);
        if (!cipher_.open(header->sequence, encodeBlockHeader(*header), stored, tag)) {
            futile_ += sealed_.size();
            return std::nullopt;
        }
        found_.push_back({header->sequence, position});
        return blockHeaderSize + header->sealedLength;
    }

    // The position of the next block magic, or the end of the file.
    std::uint64_t findMagic(std::uint64_t position) {
        while (position < file_.size()) {
            if (position < windowAt_ || position + blockMagic.size() > windowAt_ + window_.size()) {
                window_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(blockSize, file_.size() - position)));
                windowAt_ = position;
                std::string what;
                if (!file_.read(position, window_, what)) return position + std::exchange(window_, {}).size();
            }
            const auto begin = window_.begin() + static_cast<std::ptrdiff_t>(position - windowAt_);
            const auto found = std::search(begin, window_.end(), blockMagic.begin(), blockMagic.end());
            position += static_cast<std::uint64_t>(found - begin);
            if (found != window_.end()) return position;
            if (position < file_.size()) position -= blockMagic.size() - 1;  // a magic may cross the edge of the window
        }
        return position;
    }

    const ArchiveFile& file_;
    HpkeCipher cipher_;
    std::vector<std::uint8_t> sealed_;
    std::vector<std::uint8_t> window_;  // a part of the file; the search continues in it
    std::uint64_t windowAt_ = 0;
    std::vector<BlockPlace> found_;
    std::uint64_t futile_ = 0;
};

}  // namespace

BlockMap scanForBlocks(const ArchiveFile& file, const HpkeKeys& keys) {
    auto found = Scanner(file, keys).run();
    // Stable, so that of several copies of a block the first one in the file is used.
    std::stable_sort(found.begin(), found.end(),
                     [](const BlockPlace& a, const BlockPlace& b) { return a.sequence < b.sequence; });
    BlockMap map;
    for (std::size_t i = 0; i < found.size(); ++i)
        if (i == 0 || found[i].sequence != found[i - 1].sequence) map.add(found[i]);
    return map;
}

bool SalvageWalk::take(const OpenedBlock& block) {
    if (block.place.sequence > nextBlock_) {
        tell({"blocks are missing or damaged up to block " + std::to_string(block.place.sequence - 1), nextBlock_,
              std::nullopt, std::nullopt});
        lose("a part of its content is lost");
    }
    nextBlock_ = block.place.sequence + 1;
    block_ = block.place;
    if (block.fault) {
        lose("a part of its content is lost");
        tellOfBlock(*block.fault);
        return true;
    }
    RecordCursor cursor(block.plain);
    std::size_t offset = 0;
    while (const auto record = cursor.next()) {
        if (!takeRecord(*record, {0, block.place.sequence, offset})) return false;
        offset = cursor.offset();
    }
    if (cursor.damaged()) lose("its block holds something that is no record");
    return true;
}

std::uint64_t SalvageWalk::end() {
    lose("its end is lost");
    tellRun();
    return nextEntry_;
}

bool SalvageWalk::takeRecord(const Record& record, const EntryPlace& place) {
    const bool ofEntry = record.type >= RecordType::entry && record.type <= RecordType::end;
    if (!ofEntry || record.type == RecordType::entry) lose("its end is lost");
    // Records that continue from before a gap belong to an entry that is already reported as lost.
    if (!entry_.inEntry() && record.type != RecordType::entry) return true;
    const auto step = entry_.take(record);
    if (step == EntryReader::Step::damaged) {
        ReadFault fault = blockFault(block_, entry_.what());
        fault.path = entry_.head().path;
        tell(fault);
        return true;
    }
    if (step == EntryReader::Step::stopped) return false;
    if (step == EntryReader::Step::whole) return deliver();
    if (record.type != RecordType::entry) return true;

    entryPlace_ = place;
    entryPlace_.number = entry_.head().number;
    if (entryPlace_.number < nextEntry_) {
        lose("its number is wrong");
    } else {
        if (entryPlace_.number > nextEntry_) {
            tellRun();
            reportLoss_(nextEntry_, entryPlace_.number);
        }
        nextEntry_ = entryPlace_.number + 1;
    }
    return true;
}

bool SalvageWalk::deliver() {
    if (const char* what = table_.resolve(entry_)) {
        lose(what);
        return true;
    }
    table_.add(entryPlace_, entry_);
    return entry_.deliver([this](EntrySink& sink) {
        const EntryPlace* place = table_.placeOf(*entry_.tail().contentOf);
        return place && readContent(random_, *place, entry_.tail(), sink);
    });
}

void SalvageWalk::lose(std::string what) {
    if (!entry_.inEntry()) return;
    ReadFault fault = blockFault(block_, std::move(what));
    fault.path = entry_.head().path;
    tell(fault);
    entry_.abandon();
}

void SalvageWalk::tell(const ReadFault& fault) {
    tellRun();
    report_(fault);
}

// A lost leader makes its whole group unreadable; that is reported once.
void SalvageWalk::tellOfBlock(const ReadFault& fault) {
    const bool goesOn = run_ && run_->what == fault.what && fault.block == runEnd_ + 1;
    if (!goesOn) {
        tellRun();
        run_ = fault;
    }
    runEnd_ = fault.block.value_or(0);
}

void SalvageWalk::tellRun() {
    if (!run_) return;
    if (run_->block < runEnd_) run_->what += ", and so on up to block " + std::to_string(runEnd_);
    report_(*run_);
    run_.reset();
}

}  // namespace tarnwick::qvx
