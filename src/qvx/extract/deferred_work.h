// What can be done only when all entries are written: files made in a directory change its time, its own mode may
// forbid making them, nothing can be linked to an immutable file, and a kept part must not have the name of an entry.
#pragma once

#include <deque>

#include "qvx/extract/destination.h"
#include "qvx/extract/file_identity.h"
#include "qvx/extract/restored_metadata.h"
#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// Memory: 8 bytes for each task. The rest is in the spool.
class DeferredWork {
public:
    // Both must outlive this object.
    DeferredWork(ExtractionRun& run, Spool& spool) : run_(run), spool_(spool) {}

    // Will set all metadata of the directory. Of two entries with the same path, the later one is set last.
    Status addDirectory(const EntryHead& head, const EntryTail& tail);

    // Will set the inode flags of the file, if it is still there.
    Status addFlags(const EntryHead& head, const FileIdentity& identity);

    // Will rename the kept part of a file from `temporaryName`, in the directory of the entry, to NAME.incomplete, or
    // to NAME.incomplete.1 to NAME.incomplete.998 if that exists.
    Status addKept(const EntryHead& head, const std::string& temporaryName);

    // Does all of it, and reports what could not be done. The deepest path is first, so that a directory comes after
    // what is in it.
    void finish(Destination& destination);

private:
    Status add(const EntryHead& head, std::uint8_t task, Bytes details);

    ExtractionRun& run_;
    Spool& spool_;
    std::deque<std::uint64_t> places_;  // in the spool, each with the depth of the path
};

}  // namespace tarnwick::qvx
