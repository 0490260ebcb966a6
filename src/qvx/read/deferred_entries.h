// Entries that wait until all other chosen ones are delivered, because their content is in an entry that is not chosen.
#pragma once

#include <deque>
#include <functional>
#include <string_view>

#include "qvx/read/index_reader.h"
#include "qvx/read/keyed_hash.h"
#include "qvx/read/reread_contents.h"
#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// Whether to read the entry.
using EntryChoice = std::function<bool(std::uint64_t number, std::string_view path)>;

// The entries themselves wait in a temporary file, because paths and attributes may be too large for memory, and to
// read them again would open blocks twice. Memory: 32 bytes for each.
class DeferredEntries {
public:
    // `entry`, at `place`, is complete and refers to another one.
    Status add(const RecordPlace& place, const EntryReader& entry);

    // Delivers the entries in the order of their contents, so that each block is opened once. Leaves out those whose
    // path belongs to a chosen entry with a higher number, too: that one is delivered already, and it is the one that
    // must remain. Ends at the first damage.
    ReadOutcome deliver(ArchiveIndex& index, const EntryChoice& choice, RereadContents& contents, EntrySink& sink);

private:
    struct Waiting {
        std::uint64_t text = 0;  // position in the spool
        std::uint64_t pathHash = 0;
        std::uint32_t number = 0;
        std::uint32_t content = 0;    // number of the entry with the content
        RecordPlace place = nowhere;  // of that one
    };
    static constexpr RecordPlace nowhere{0xffffffff, 0};

    Result<void, ReadFault> locateContents(ArchiveIndex& index);
    Result<void, ReadFault> dropReplaced(ArchiveIndex& index, const EntryChoice& choice);
    ReadOutcome deliverOne(const Waiting& waiting, RereadContents& contents, EntryReader& entry);

    const KeyedHash hash_;
    Spool spool_;
    std::deque<Waiting> waiting_;
    std::vector<std::uint8_t> text_;
};

}  // namespace tarnwick::qvx
