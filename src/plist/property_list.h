// Property lists: the value model, and reading them from text and from files. Two forms are read and told apart by
// their content: the XML form (xml_property_list.h) and the binary form "bplist00" (binary_property_list.h).
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

// One value. Integers are signed 64-bit, except those beyond its range, which are kept unsigned. Strings are valid
// UTF-8. The parsers bound the nesting, so that walking a value recursively is safe.
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

// As findValue, but null also when the value is of another type than T.
template <typename T>
const T* findValueAs(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* found = findValue(dictionary, key);
    return found ? found->as<T>() : nullptr;
}

// Parses either form. Anything malformed, trailing bytes included, gives nothing.
std::optional<PropertyListValue> parsePropertyList(std::string_view bytes);

// As parsePropertyList, but a root that is not a dictionary gives nothing as well.
std::optional<PropertyListDictionary> parsePropertyListText(std::string_view text);

inline constexpr std::size_t maxPropertyListFile = 16 << 20;  // bytes; a larger file is refused

// Reads and parses a file whose root must be a dictionary. Links are followed. A path is text as any other here, and
// one that is not UTF-8 names nothing. The file may stand on a volume that belongs to a stranger: something that is not
// a regular file is not waited for, and a file past maxPropertyListFile is refused.
std::optional<PropertyListDictionary> readPropertyListFile(const std::filesystem::path& path);

// As readPropertyListFile, for a file that decides what root does (openTrustedFile).
std::optional<PropertyListDictionary> readTrustedPropertyListFile(const std::filesystem::path& path);

// The text of a string value; empty when there is no value, when it is not a string, and when the string holds
// anything outside ASCII (the reader's buffer is sized by UTF-16 units, and a longer text does not fit).
std::string textFromPlatformString(const PropertyListValue* value);

}  // namespace tarnwick
