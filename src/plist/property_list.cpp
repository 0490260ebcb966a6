#include "plist/property_list.h"

#include "base/file_reading.h"
#include "base/utf8.h"
#include "plist/binary_property_list.h"
#include "plist/xml_property_list.h"

namespace tarnwick {

namespace {

std::optional<PropertyListDictionary> parseFile(const Result<FileDescriptor>& file) {
    const auto bytes = file ? readToEnd(*file, maxPropertyListFile) : file.error();
    return bytes ? parsePropertyListText(*bytes) : std::nullopt;
}

std::size_t utf16Length(std::string_view utf8) {
    std::size_t units = 0;
    for (const char each : utf8) {
        const auto byte = static_cast<unsigned char>(each);
        const bool continues = (byte & 0xc0) == 0x80;
        const bool needsSurrogatePair = byte >= 0xf0;
        units += continues ? 0 : needsSurrogatePair ? 2 : 1;
    }
    return units;
}

}  // namespace

const PropertyListValue* findValue(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? nullptr : &found->second;
}

std::optional<PropertyListValue> parsePropertyList(std::string_view bytes) {
    return looksLikeBinaryPropertyList(bytes) ? parseBinaryPropertyList(bytes) : parseXmlPropertyList(bytes);
}

std::optional<PropertyListDictionary> parsePropertyListText(std::string_view text) {
    auto root = parsePropertyList(text);
    auto* dictionary = root ? std::get_if<PropertyListDictionary>(&root->value) : nullptr;
    if (!dictionary) return std::nullopt;
    return std::move(*dictionary);
}

std::optional<PropertyListDictionary> readPropertyListFile(const std::filesystem::path& path) {
    return isUtf8(path.native()) ? parseFile(openRegularFile(path)) : std::nullopt;
}

std::optional<PropertyListDictionary> readTrustedPropertyListFile(const std::filesystem::path& path) {
    return parseFile(openTrustedFile(path));
}

// The buffer has one byte for each UTF-16 unit of the string. A text with a character outside ASCII needs more bytes in
// UTF-8 than it has units, so it does not fit and counts as no text.
std::string textFromPlatformString(const PropertyListValue* value) {
    const auto* text = value ? value->as<std::string>() : nullptr;
    if (!text || text->size() > utf16Length(*text)) return {};
    return *text;
}

}  // namespace tarnwick
