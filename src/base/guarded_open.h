// Opens directories whose path may lead through a link that another user has planted.
#pragma once

#include <string>

#include "base/error.h"
#include "base/handle.h"

namespace tarnwick {

// Opens the directory at `path` (absolute, ".." allowed) for lookups only (O_PATH), one component after the other. A
// link is followed only if root or the user of this process owns both the link and its folder, and nobody else can
// write to the folder (a sticky one is safe). In other folders somebody could replace the link at any moment, also
// between two checks. The target of a link is opened under the same rule.
// The code ELOOP means that a link was not followed.
Result<FileDescriptor> openDirectoryGuarded(const std::string& path);

}  // namespace tarnwick
