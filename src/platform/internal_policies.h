// Checks whether this is an internal build.
#pragma once

#include <string_view>

namespace tarnwick {

// The identifier that this program looks up.
inline constexpr std::string_view subsystemIdentifier = "com.vexlor.tarnwick";

// Whether /etc/tarnwick/internal-policies.plist maps the subsystem identifier to boolean true. A file that is a link,
// is not owned by root or is writable by others counts as absent. Reads the file on every call.
bool internalPoliciesAllowed(std::string_view subsystem);

}  // namespace tarnwick
