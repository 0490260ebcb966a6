#include "platform/internal_policies.h"

#include "plist/property_list.h"

namespace tarnwick {

bool internalPoliciesAllowed(std::string_view subsystem) {
    const auto policies = readTrustedPropertyListFile("/etc/tarnwick/internal-policies.plist");
    const auto* allowed = policies ? findValueAs<bool>(*policies, subsystem) : nullptr;
    return allowed && *allowed;
}

}  // namespace tarnwick
