#include "report.h"

#include <cstdio>
#include <cstring>

namespace tarnwick::qvx {

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The length of the printable UTF-8 sequence at the beginning of `text`, or 0. C1 controls and what turns the direction
// of writing or breaks a line are as dangerous to a reader as C0 controls.
std::size_t printableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return first >= 0x20 && first != 0x7F && first != '\\' ? 1 : 0;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
    char32_t point = first & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[i])) return 0;
        point = (point << 6) | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
    const bool notACharacter = (point >= 0xD800 && point < 0xE000) || point > 0x10FFFF || point < 0xA0;
    const bool unseen = (point >= 0x200B && point <= 0x200F) || (point >= 0x2028 && point <= 0x202E) ||
                        (point >= 0x2060 && point <= 0x206F) || point == 0xFEFF || point == 0x061C;
    return overlong || notACharacter || unseen ? 0 : length;
}

}  // namespace

void say(const std::string& message) { std::fprintf(stderr, "qvx: %s\n", message.c_str()); }

void sayError(const std::string& message, int error) { say(message + ": " + std::strerror(error)); }

std::string escapedName(std::string_view name) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(name.size());
    while (!name.empty()) {
        const auto length = printableLength(name);
        if (length > 0) {
            text += name.substr(0, length);
        } else {
            const auto byte = static_cast<unsigned char>(name[0]);
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        }
        name.remove_prefix(length > 0 ? length : 1);
    }
    return text;
}

}  // namespace tarnwick::qvx
