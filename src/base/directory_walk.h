// The directory walk that the capture store and the configuration file resolution share.
#pragma once

#include <filesystem>
#include <vector>

namespace tarnwick {

// Lists the regular files in `directory`, links followed, in the order of the file system. With `includeDirectories`
// also the directories; with `recurse` also everything below them, each directory before its contents. Other kinds of
// file are skipped. A path that is not a directory, or may not be opened, gives an empty list.
// Throws std::filesystem::filesystem_error on any other error. Below `directory`, only EPERM skips a subtree silently:
// there the operating system itself forbids access. After any other error the list would be incomplete without a sign
// of it.
std::vector<std::filesystem::path> listDirectory(const std::filesystem::path& directory, bool recurse,
                                                 bool includeDirectories);

}  // namespace tarnwick
