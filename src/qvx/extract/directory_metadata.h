// The metadata of extracted directories, which is set at the end: files made in a directory change its time, and its
// own mode may forbid making them.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "qvx/extract/destination.h"
#include "qvx/extract/restored_metadata.h"

namespace tarnwick::qvx {

class DirectoryMetadata {
public:
    // Attributes and access control lists are dropped, and that is an error, when those of all directories together
    // take more than 64 MiB. Of two entries with the same path, the later one counts.
    Status add(const EntryHead& head, const EntryTail& tail);

    // Sets the metadata of all directories that are still there, and warns of what could not be set.
    void restore(ExtractionRun& run, Destination& destination) const;

private:
    struct Directory {
        EntryHead head;
        EntryTail tail;
    };

    std::map<std::string, Directory, std::less<>> directories_;  // by path
    std::size_t attributeBytes_ = 0;
};

}  // namespace tarnwick::qvx
