// What is known about each file system and other content of a device. A new file system is one row of the table.
#pragma once

#include <string_view>

namespace tarnwick {

enum class Usage {
    files,
    swap,
    poolMember,  // not mounted itself: the datasets of its pool are
};

struct FileSystem {
    std::string_view name;         // as probes and mounts report it
    std::string_view driver = {};  // the type to mount it as; empty: its name
    // The mount option that keeps the driver from replaying the journal, so that a read-only mount changes nothing.
    std::string_view noReplayOption = {};
    Usage usage = Usage::files;
    bool spansDevices = false;  // may span several devices; the driver writes nothing on a read-only mount
    bool isImage = false;       // written once, as a whole, to ship software
    // File names may contain a colon, as the names of captures do. Otherwise it cannot be the service partition.
    bool allowsColons = true;
    bool isAnyFormat = false;  // the name of a user-space driver, which does not say what format it mounted
};

// The row of `name`; for a name without a row, the defaults with this name (not a copy of it).
FileSystem fileSystem(std::string_view name);

}  // namespace tarnwick
