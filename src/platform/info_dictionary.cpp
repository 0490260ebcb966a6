#include "platform/info_dictionary.h"

#include <filesystem>

// The linker defines these around the section with the dictionary. In a program without that section (a companion tool,
// a test) nothing defines them, and both are null.
extern "C" {
[[gnu::weak, gnu::visibility("hidden")]] extern const char __start_tarnwick_info;
[[gnu::weak, gnu::visibility("hidden")]] extern const char __stop_tarnwick_info;
}

namespace tarnwick {

namespace {

std::string_view embeddedText() {
    const char* start = &__start_tarnwick_info;
    const char* stop = &__stop_tarnwick_info;
    return start ? std::string_view(start, static_cast<std::size_t>(stop - start)) : std::string_view();
}

// The identifier becomes a component of a path.
bool isPlainFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

std::optional<PropertyListValue> copyOf(const PropertyListValue* value) {
    return value ? std::optional(*value) : std::nullopt;
}

}  // namespace

std::optional<PropertyListValue> lookupOwnInfoValue(std::string_view key) {
    const auto info = parsePropertyListText(embeddedText());
    return info ? copyOf(findValue(*info, key)) : std::nullopt;
}

std::optional<Bundle> findBundleByIdentifier(std::string_view identifier) {
    if (!isPlainFileName(identifier)) return std::nullopt;
    auto info =
        readTrustedPropertyListFile(std::filesystem::path("/usr/lib/tarnwick/bundles") / identifier / "Info.plist");
    if (!info) return std::nullopt;
    return Bundle{std::move(*info)};
}

std::optional<PropertyListValue> lookupBundleInfoValue(const Bundle& bundle, std::string_view key) {
    return copyOf(findValue(bundle.info, key));
}

}  // namespace tarnwick
