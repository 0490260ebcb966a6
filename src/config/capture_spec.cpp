#include "config/capture_spec.h"

#include <optional>

#include "platform/info_dictionary.h"
#include "platform/internal_policies.h"
#include "plist/property_list.h"

namespace tarnwick {

namespace {

std::optional<PropertyListValue> valueFromFile(const std::string& path, std::string_view key) {
    const auto dictionary = readPropertyListFile(path);
    const auto* value = dictionary ? findValue(*dictionary, key) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
}

std::optional<PropertyListValue> valueFromTestBundle(std::string_view key) {
    if (!internalPoliciesAllowed(subsystemIdentifier)) return std::nullopt;
    const auto bundle = findBundleByIdentifier("com.vexlor.internal.tarnkit-tests");
    return bundle ? lookupBundleInfoValue(*bundle, key) : std::nullopt;
}

std::optional<PropertyListValue> configuredValue(const std::string& configurationPath, std::string_view key) {
    if (!configurationPath.empty()) return valueFromFile(configurationPath, key);
    if (auto own = lookupOwnInfoValue(key)) return own;
    return valueFromTestBundle(key);
}

CaptureDirective readDirective(const PropertyListDictionary& entry) {
    CaptureDirective directive;
    directive.BasePath = textFromPlatformString(findValue(entry, "BasePath"));
    directive.Expression = textFromPlatformString(findValue(entry, "Expression"));
    directive.DocString = textFromPlatformString(findValue(entry, "DocString"));
    return directive;
}

}  // namespace

std::vector<CaptureDirective> loadCaptureSpec(const std::string& configurationPath) {
    std::vector<CaptureDirective> directives;
    const auto value = configuredValue(configurationPath, "CaptureSpec");
    const auto* entries = value ? value->as<PropertyListArray>() : nullptr;
    if (!entries) return directives;
    // From last to first: this is the order of the searches and of the execution log.
    for (auto entry = entries->rbegin(); entry != entries->rend(); ++entry)
        if (const auto* dictionary = entry->as<PropertyListDictionary>())
            directives.push_back(readDirective(*dictionary));
    return directives;
}

std::string loadArchivePublicKey(const std::string& configurationPath) {
    const auto value = configuredValue(configurationPath, "archive_public_key");
    return value ? textFromPlatformString(&*value) : std::string();
}

}  // namespace tarnwick
