// The directory walk that the capture store and the configuration file resolution share.
#pragma once

#include <filesystem>
#include <vector>

namespace tarnwick {

// The regular files in `directory`, links followed, in the file system's own order; with `includeDirectories` also the
// directories, with `recurse` also what stands below them (each directory before its contents). Anything else is passed
// over. A path that is not a directory, or that may not be opened, gives nothing.
// Throws std::filesystem::filesystem_error on any other error. A subtree is given up quietly on EPERM alone: there the
// operating system itself forbids the look, while any other failure means that the list would be incomplete unseen.
std::vector<std::filesystem::path> listDirectory(const std::filesystem::path& directory, bool recurse,
                                                 bool includeDirectories);

}  // namespace tarnwick
