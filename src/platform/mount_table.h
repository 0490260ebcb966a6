// The mounts of this mount namespace, by their number.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/error.h"

namespace tarnwick {

// A line of /proc/self/mountinfo; see proc(5). Names are decoded bytes.
struct MountEntry {
    std::uint64_t id = 0;
    dev_t fileSystem = 0;  // identifies the mounted file system, whichever part of it the mount shows
    std::string target;
    std::string source;
    std::string type;
};

// In the order of the table. Empty when it cannot be read: then no mount is known.
std::vector<MountEntry> readMountTable(const std::filesystem::path& mountinfo = "/proc/self/mountinfo");

// The number of the mount that `name` is on, looked up in the directory `folder` without following a link; that of the
// directory itself when the name is empty.
Result<std::uint64_t> mountIdOf(int folder, const char* name);

}  // namespace tarnwick
