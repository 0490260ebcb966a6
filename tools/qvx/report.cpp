#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/utf8.h"

namespace tarnwick::qvx {

namespace {

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
        } else if (!isPrintable(character)) {  // all of these have a place among the first 65536
            json += "\\u";
            for (int shift = 12; shift >= 0; shift -= 4) json += digits[character.point >> shift & 15];
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
