// Property lists: their values, and parsing them from text and from files. There are two forms, distinguished by their
// content: XML (xml_property_list.h) and the binary form "bplist00" (binary_property_list.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarnwick {

struct PropertyListValue;

using PropertyListArray = std::vector<PropertyListValue>;
using PropertyListDictionary = std::map<std::string, PropertyListValue, std::less<>>;  // keys are UTF-8
using PropertyListData = std::vector<std::byte>;

struct PropertyListDate {
    double secondsSince2001 = 0;  // 2001-01-01T00:00:00Z, leap seconds not counted
};

struct PropertyListUid {
    std::uint64_t number = 0;  // binary form only
};

// One value. Integers are signed 64-bit; those beyond that range are unsigned. Strings are valid UTF-8. The parsers
// limit the nesting, so recursion over a value is safe.
struct PropertyListValue {
    std::variant<bool, std::int64_t, std::uint64_t, double, PropertyListDate, PropertyListUid, PropertyListData,
                 std::string, PropertyListArray, PropertyListDictionary>
        value;

    // The value as a T, or null when it is of another type.
    template <typename T>
    [[nodiscard]] const T* as() const {
        return std::get_if<T>(&value);
    }
};

// The value stored under `key`, or null. The pointer lives as long as the dictionary.
const PropertyListValue* findValue(const PropertyListDictionary& dictionary, std::string_view key);

// findValue for a value of type T; null also when the value has another type.
template <typename T>
const T* findValueAs(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* found = findValue(dictionary, key);
    return found ? found->as<T>() : nullptr;
}

// Parses either form. Nothing for malformed input, trailing bytes included.
std::optional<PropertyListValue> parsePropertyList(std::string_view bytes);

// parsePropertyList for a root that must be a dictionary; nothing for another root.
std::optional<PropertyListDictionary> parsePropertyListText(std::string_view text);

inline constexpr std::size_t maxPropertyListFile = 16 << 20;  // bytes; a larger file is refused

// Reads and parses a file whose root must be a dictionary. Follows links. A path that is not UTF-8 finds nothing. The
// file may be on a volume that another person controls: it must be a regular file (nothing else is waited for) of at
// most maxPropertyListFile bytes.
std::optional<PropertyListDictionary> readPropertyListFile(const std::filesystem::path& path);

// readPropertyListFile for a file that decides what root does (openTrustedFile).
std::optional<PropertyListDictionary> readTrustedPropertyListFile(const std::filesystem::path& path);

// The text of a string value. Empty when there is no value, when it is not a string, and when the string contains a
// character outside ASCII (the buffer is sized by UTF-16 units, and such a text does not fit).
std::string textFromPlatformString(const PropertyListValue* value);

}  // namespace tarnwick
