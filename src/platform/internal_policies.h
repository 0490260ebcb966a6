// The internal-build check.
#pragma once

#include <string_view>

namespace tarnwick {

// The name under which this program asks.
inline constexpr std::string_view subsystemIdentifier = "com.vexlor.tarnwick";

// Whether /etc/tarnwick/internal-policies.plist maps the subsystem identifier to boolean true. A file that is a link,
// not root's own or writable by others counts as absent. Asked afresh on every call.
bool internalPoliciesAllowed(std::string_view subsystem);

}  // namespace tarnwick
