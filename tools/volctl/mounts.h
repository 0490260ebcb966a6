// The mounts that can be reached by a path.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/error.h"

namespace tarnwick {

// One mount; names are bytes, already decoded.
struct Mount {
    std::string target;
    std::string root;  // the folder of the file system that is mounted: "/", or the path of a bind mount or subvolume
    std::string source;
    std::string type;
    dev_t device = 0;
};

// Reads a mountinfo text. Leaves out a mount that no path leads to, because another mount covers it or a folder above
// it.
Result<std::vector<Mount>> readVisibleMounts(const std::filesystem::path& mountinfo = "/proc/self/mountinfo");

// The mount that `path` (absolute) is on, or null.
const Mount* mountContaining(const std::vector<Mount>& mounts, const std::string& path);

// The path in the form of a mount's target, with no slash at its end except in "/".
std::string withoutTrailingSlashes(std::string path);

}  // namespace tarnwick
