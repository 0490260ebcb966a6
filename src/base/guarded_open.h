// Opening directories in whose path a stranger may have placed a link.
#pragma once

#include <string>

#include "base/handle.h"

namespace tarnwick {

// Opens the directory at `path` (absolute, ".." allowed) for lookups only (O_PATH), one component below the other. A
// component that is a link is followed only if root owns it, or the user of this process: the owner of a link can
// replace it at any moment, between two looks as well. The target of such a link is opened under the same rule.
// No descriptor on failure, with errno set; ELOOP stands for a link that is not followed.
FileDescriptor openDirectoryGuarded(const std::string& path);

}  // namespace tarnwick
