#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tarnwick::qvx {

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

struct Character {
    std::size_t length = 0;  // in bytes; 0 for a byte that is not part of UTF-8
    char32_t point = 0;
};

// The character at the beginning of `text`.
Character firstCharacter(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return {1, first};
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return {};
    char32_t point = first & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[i])) return {};
        point = (point << 6) | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
    if (overlong || (point >= 0xD800 && point < 0xE000) || point > 0x10FFFF) return {};
    return {length, point};
}

// Other controls than those of ASCII, and what turns the direction of writing or breaks a line, are as dangerous to
// somebody who reads as these are.
bool isPrintable(const Character& character) {
    const char32_t point = character.point;
    const bool control = point < 0x20 || (point >= 0x7F && point < 0xA0);
    const bool unseen = (point >= 0x200B && point <= 0x200F) || (point >= 0x2028 && point <= 0x202E) ||
                        (point >= 0x2060 && point <= 0x206F) || point == 0xFEFF || point == 0x061C;
    return character.length > 0 && !control && !unseen;
}

constexpr char digits[] = "0123456789abcdef";

}  // namespace

void say(const std::string& message) { std::fprintf(stderr, "qvx: %s\n", message.c_str()); }

void sayError(const std::string& message, int error) { say(message + ": " + std::strerror(error)); }

std::string escapedName(std::string_view name) {
    std::string text;
    text.reserve(name.size());
    while (!name.empty()) {
        const auto character = firstCharacter(name);
        const std::size_t length = std::max<std::size_t>(character.length, 1);
        if (isPrintable(character) && name[0] != '\\') {
            text += name.substr(0, length);
        } else {
            for (const char c : name.substr(0, length)) {
                const auto byte = static_cast<unsigned char>(c);
                text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
            }
        }
        name.remove_prefix(length);
    }
    return text;
}

std::string jsonString(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (character.length == 0) {
            json += {'\\', 'u', 'd', 'c', digits[byte >> 4], digits[byte & 15]};
        } else if (character.length == 1 && !isPrintable(character)) {
            json += {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 15]};
        } else if (byte == '"' || byte == '\\') {
            json += {'\\', text[0]};
        } else {
            json += text.substr(0, character.length);
        }
        text.remove_prefix(std::max<std::size_t>(character.length, 1));
    }
    return json + '"';
}

}  // namespace tarnwick::qvx
