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

void say(const Error& error) { say((error.subject.empty() ? "" : escapedName(error.subject) + ": ") + error.text); }

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

}  // namespace tarnwick::qvx
