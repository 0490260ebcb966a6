#include "visible_text.h"

#include <cstddef>

namespace tarnwick {

namespace {

unsigned char byteAt(std::string_view bytes, std::size_t index) { return static_cast<unsigned char>(bytes[index]); }

// Length of the well-formed UTF-8 sequence at `start` that shows something, or 0 (RFC 3629, section 4). The C1
// controls U+0080..U+009F count as nothing to show: terminals obey some of them.
std::size_t visibleSequence(std::string_view bytes, std::size_t start) {
    const auto lead = byteAt(bytes, start);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || bytes.size() - start < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byteAt(bytes, start + i) & 0xc0) != 0x80) return 0;
    const auto second = byteAt(bytes, start + 1);
    const bool refused = (lead == 0xc2 && second < 0xa0) || (lead == 0xe0 && second < 0xa0) ||
                         (lead == 0xed && second > 0x9f) || (lead == 0xf0 && second < 0x90) ||
                         (lead == 0xf4 && second > 0x8f);
    return refused ? 0 : length;
}

}  // namespace

std::string visibleText(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size();) {
        if (const auto length = visibleSequence(bytes, i)) {
            text.append(bytes.substr(i, length));
            i += length;
        } else {
            const auto byte = byteAt(bytes, i++);
            text.append({'\\', 'x', digits[byte >> 4], digits[byte & 15]});
        }
    }
    return text;
}

bool isPlainName(std::string_view bytes) {
    static constexpr std::string_view allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-:@+,=~ ";
    return bytes.find_first_not_of(allowed) == std::string_view::npos;
}

}  // namespace tarnwick
