#include "platform/property_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/handle.h"
#include "base/utf8.h"
#include "platform/binary_property_list.h"
#include "platform/xml_property_list.h"

namespace tarnwick {

namespace {

constexpr std::size_t largestFile = 16 << 20;

// Opens a regular file and nothing else. O_NONBLOCK keeps a FIFO in the file's place from holding the run for ever.
FileDescriptor openRegularFile(const std::filesystem::path& path, int extraFlags, struct stat& status) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | extraFlags));
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    return file;
}

// The size is not asked for beforehand: the file may be growing while it is read.
std::optional<std::string> readToEnd(const FileDescriptor& file) {
    std::string bytes;
    std::size_t filled = 0;
    for (;;) {
        if (filled > largestFile) return std::nullopt;
        if (filled == bytes.size()) bytes.resize(filled + (filled < (1 << 16) ? 1 << 16 : filled));
        const auto count = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return bytes;
}

std::optional<PropertyListDictionary> parseFile(const FileDescriptor& file) {
    const auto bytes = readToEnd(file);
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
    struct stat status {};
    const auto file = isUtf8(path.native()) ? openRegularFile(path, 0, status) : FileDescriptor();
    return file ? parseFile(file) : std::nullopt;
}

std::optional<PropertyListDictionary> readTrustedPropertyListFile(const std::filesystem::path& path) {
    struct stat status {};
    const auto file = openRegularFile(path, O_NOFOLLOW, status);
    if (!file || status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return std::nullopt;
    return parseFile(file);
}

// The buffer holds one byte for each UTF-16 unit of the string. What needs more bytes than units in UTF-8, which is
// every text with a character outside ASCII, does not fit and counts as no text at all.
std::string textFromPlatformString(const PropertyListValue* value) {
    const auto* text = value ? value->as<std::string>() : nullptr;
    if (!text || text->size() > utf16Length(*text)) return {};
    return *text;
}

}  // namespace tarnwick
