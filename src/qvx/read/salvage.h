// Salvages a damaged archive: extracts the intact entries and reports the rest.
#pragma once

#include "qvx/read/entry_table.h"

namespace tarnwick::qvx {

// Finds every block that can be unsealed, also after damage and out of order; the result is in ascending order. From an
// intact block the search continues at its end; elsewhere it tries every place that looks like a block header.
BlockMap scanForBlocks(const ArchiveFile& file, const HpkeKeys& keys);

// Reads blocks in ascending order, with gaps, and delivers the entries whose blocks are all there.
class SalvageWalk {
public:
    using FaultReport = std::function<void(const ReadFault&)>;
    using LossReport = std::function<void(std::uint64_t firstEntry, std::uint64_t endEntry)>;

    SalvageWalk(const ArchiveFile& file, const HpkeKeys& keys, const BlockMap& map, EntrySink& sink, FaultReport report,
                LossReport reportLoss)
        : random_(file, keys, map), entry_(sink), report_(std::move(report)), reportLoss_(std::move(reportLoss)) {}

    // Reads a block, or the fault of one. False when the sink stops.
    bool take(const OpenedBlock& block);

    // Call after the last block. Reports an entry that has no end, and returns the number of the first entry not seen.
    std::uint64_t end();

private:
    bool takeRecord(const Record& record, const EntryPlace& place);
    bool deliver();
    void lose(std::string what);
    void tell(const ReadFault& fault);
    void tellOfBlock(const ReadFault& fault);
    void tellRun();

    RandomBlocks random_;
    EntryReader entry_;
    EntryPlace entryPlace_;
    EntryTable table_;
    FaultReport report_;
    LossReport reportLoss_;
    BlockPlace block_;
    std::uint64_t nextBlock_ = 0;
    std::uint64_t nextEntry_ = 0;
    std::optional<ReadFault> run_;  // a run of damaged blocks that is not reported yet
    std::uint64_t runEnd_ = 0;
};

}  // namespace tarnwick::qvx
