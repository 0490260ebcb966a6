#include "base/invisible_characters.h"

#include <algorithm>
#include <array>

namespace tarnwick {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// In order. Neighbours are one row, even if they have different properties.
constexpr std::array invisible{
    Range{0x0000, 0x001f},    // control characters
    Range{0x007f, 0x009f},    // control characters
    Range{0x00ad, 0x00ad},    // soft hyphen
    Range{0x034f, 0x034f},    // combining grapheme joiner
    Range{0x0600, 0x0605},    // Arabic number signs
    Range{0x061c, 0x061c},    // Arabic letter mark
    Range{0x06dd, 0x06dd},    // Arabic end of ayah
    Range{0x070f, 0x070f},    // Syriac abbreviation mark
    Range{0x0890, 0x0891},    // Arabic currency marks
    Range{0x08e2, 0x08e2},    // Arabic disputed end of ayah
    Range{0x115f, 0x1160},    // Hangul fillers
    Range{0x17b4, 0x17b5},    // Khmer inherent vowels
    Range{0x180b, 0x180f},    // Mongolian variation selectors and vowel separator
    Range{0x200b, 0x200f},    // zero width, direction
    Range{0x2028, 0x202e},    // line and paragraph separator, direction
    Range{0x2060, 0x206f},    // zero width, invisible operators, direction
    Range{0x3164, 0x3164},    // Hangul filler
    Range{0xfe00, 0xfe0f},    // variation selectors
    Range{0xfeff, 0xfeff},    // byte order mark
    Range{0xffa0, 0xffa0},    // Hangul filler
    Range{0xfff0, 0xfffb},    // not assigned, interlinear annotation
    Range{0x110bd, 0x110bd},  // Kaithi number sign
    Range{0x110cd, 0x110cd},  // Kaithi number sign
    Range{0x13430, 0x1343f},  // layout of hieroglyphs
    Range{0x1bca0, 0x1bca3},  // layout of shorthand
    Range{0x1d173, 0x1d17a},  // musical beams and slurs
    Range{0xe0000, 0xe0fff},  // tags, variation selectors, not assigned
};

static_assert(std::ranges::is_sorted(invisible, {}, &Range::first));

}  // namespace

bool isInvisible(char32_t character) {
    const auto* row = std::ranges::lower_bound(invisible, character, {}, &Range::last);
    return row != invisible.end() && row->first <= character;
}

}  // namespace tarnwick
