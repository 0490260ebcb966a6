#include "platform/internal_policies.h"

#include "plist/property_list.h"

namespace tarnwick {

bool internalPoliciesAllowed(std::string_view subsystem) {
    // Trusted: otherwise any user who can write the file could allow the internal options.
    const auto policies = readTrustedPropertyListFile("/etc/tarnwick/internal-policies.plist");
    const auto* allowed = policies ? findValueAs<bool>(*policies, subsystem) : nullptr;
    return allowed && *allowed;
}

}  // namespace tarnwick
