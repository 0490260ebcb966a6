#include "base/visible_text.h"

#include <algorithm>

#include "base/utf8.h"

namespace tarnwick {

namespace {

// Each byte of a character that is not kept becomes \xNN.
template <typename IsKept>
std::string escape(std::string_view bytes, const IsKept& isKept) {
    static constexpr char hexadecimal[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const auto character = firstCharacter(bytes);
        const auto length = std::max<std::size_t>(character.length, 1);
        if (isKept(character)) {
            text.append(bytes.substr(0, length));
        } else {
            for (const char each : bytes.substr(0, length)) {
                const auto byte = static_cast<unsigned char>(each);
                text += {'\\', 'x', hexadecimal[byte >> 4], hexadecimal[byte & 15]};
            }
        }
        bytes.remove_prefix(length);
    }
    return text;
}

}  // namespace

std::string visibleText(std::string_view bytes) { return escape(bytes, isPrintable); }

std::string escapedName(std::string_view name) {
    return escape(name, [](const Character& each) { return isPrintable(each) && each.point != '\\'; });
}

bool isPlainName(std::string_view bytes) {
    static constexpr std::string_view allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-:@+,=~ ";
    return bytes.find_first_not_of(allowed) == std::string_view::npos;
}

}  // namespace tarnwick
