// Opening directories in whose path a stranger may have placed a link.
#pragma once

#include <string>

#include "base/handle.h"

namespace tarnwick {

// Opens the directory at `path` (absolute, ".." allowed) for lookups only (O_PATH), one component below the other. A
// component that is a link is followed only if root, or the user of this process, owns the link and its folder, and
// nobody else can write to the folder (a sticky one is safe): others could replace the link at any moment, between two
// looks as well. The target of such a link is opened under the same rule.
// No descriptor on failure, with errno set; ELOOP means that a link was not followed.
FileDescriptor openDirectoryGuarded(const std::string& path);

}  // namespace tarnwick
