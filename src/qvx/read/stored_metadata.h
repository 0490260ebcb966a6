// Reads what is stored about chosen entries, without reading their contents.
#pragma once

#include <functional>
#include <string>

#include "qvx/read/chosen_entry_reader.h"

namespace tarnwick::qvx {

// What the records of an entry contain beside the content of a file. Nothing is compared with the content, so the
// digest is only what the writer of the archive has stated.
struct StoredMetadata {
    EntryHead head;
    EntryTail tail;
    std::string target;  // of a link
};

class StoredMetadataReader {
public:
    using Visitor = std::function<void(const StoredMetadata&)>;

    // The pipeline opens the blocks that ChosenBlocks supplies for metadata. All arguments must outlive the reader.
    StoredMetadataReader(BlockPipeline& blocks, const EntryChoice& choice, const Visitor& visit)
        : blocks_(blocks), choice_(choice), visit_(visit) {}

    // Reads one entry. Call it in the order in which they are stored.
    Result<void, ReadFault> read(const ChosenEntry& chosen);

private:
    enum class State { partial, complete, damaged };

    bool findBlock(std::uint64_t sequence);
    State readBlock(const ChosenEntry& chosen);
    State consume(const Record& record, const ChosenEntry& chosen);
    State begin(const Record& record, const ChosenEntry& chosen);
    State end(const Record& record);
    [[nodiscard]] ReadFault fault() const;

    BlockPipeline& blocks_;
    const EntryChoice& choice_;
    const Visitor& visit_;
    BlockPointer block_;
    StoredMetadata entry_;
    RecordJoiner joiner_;
    bool begun_ = false;
};

}  // namespace tarnwick::qvx
