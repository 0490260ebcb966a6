// The directory walk that the capture store and the configuration file resolution share.
#pragma once

#include <filesystem>
#include <vector>

namespace tarnwick {

// Lists the regular files in `directory` in the order of the file system. Links are followed. With
// `includeDirectories`, directories are listed too; with `recurse`, also everything below them, each directory before
// its contents. Other kinds of file are skipped. A path that is not a directory, or that may not be opened, gives an
// empty list.
// Throws std::filesystem::filesystem_error on any other error, so that no list is silently incomplete. The exception is
// EPERM below `directory`, which skips the subtree: the operating system itself forbids access there.
std::vector<std::filesystem::path> listDirectory(const std::filesystem::path& directory, bool recurse,
                                                 bool includeDirectories);

}  // namespace tarnwick
