#include "base/visible_text.h"

#include <gtest/gtest.h>

#include <tuple>

#include "base/json_string.h"

using namespace tarnwick;

namespace {

std::string utf8(char32_t point) {
    const auto byte = [&](int shift, unsigned lead, unsigned mask) {
        return static_cast<char>(lead | (point >> shift & mask));
    };
    if (point < 0x80) return {byte(0, 0, 0x7f)};
    if (point < 0x800) return {byte(6, 0xc0, 0x1f), byte(0, 0x80, 0x3f)};
    if (point < 0x10000) return {byte(12, 0xe0, 15), byte(6, 0x80, 0x3f), byte(0, 0x80, 0x3f)};
    return {byte(18, 0xf0, 7), byte(12, 0x80, 0x3f), byte(6, 0x80, 0x3f), byte(0, 0x80, 0x3f)};
}

bool isEscaped(char32_t point) { return visibleText(utf8(point)).size() == 4 * utf8(point).size(); }

}  // namespace

TEST(VisibleText, EscapesBytesThatAreNotUtf8) {
    EXPECT_EQ(visibleText("\xc3\xa9\xf0\x9f\x92\xbe [~\xe2\x82["), "\xc3\xa9\xf0\x9f\x92\xbe [~\\xe2\\x82[");
    for (const std::string raw : {"\x1b", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
        EXPECT_EQ(visibleText(raw).size(), 4 * raw.size()) << visibleText(raw);
}

// The number and the sum are those of the characters with general category Cc, Cf, Zl or Zp or the property
// Default_Ignorable_Code_Point, as another implementation of Unicode 17.0 (ICU) has them.
TEST(VisibleText, EscapesExactlyTheInvisibleCharactersOfUnicode) {
    std::size_t count = 0, sum = 0;
    for (char32_t point = 0; point <= 0x10ffff; ++point) {
        if ((point >= 0xd800 && point < 0xe000) || !isEscaped(point)) continue;
        ++count;
        sum += point;
    }
    EXPECT_EQ(std::tuple(count, sum), std::tuple(std::size_t{4273}, std::size_t{3771574269}));
}

TEST(VisibleText, ShowsTheNeighboursOfInvisibleCharacters) {
    for (const auto& [first, last] : std::vector<std::pair<char32_t, char32_t>>{
             {0x7f, 0x9f},  // before it ~, after it the blank that does not break a line
             {0xad, 0xad},
             {0x34f, 0x34f},
             {0x61c, 0x61c},
             {0x180b, 0x180f},
             {0x200b, 0x200f},
             {0x2028, 0x202e},
             {0x2060, 0x206f},
             {0x3164, 0x3164},
             {0xfe00, 0xfe0f},
             {0xfeff, 0xfeff},
             {0xffa0, 0xffa0},
             {0xfff0, 0xfffb},
             {0x1bca0, 0x1bca3},
             {0x1d173, 0x1d17a},
             {0xe0000, 0xe0fff}}) {
        EXPECT_TRUE(isEscaped(first) && isEscaped(last)) << std::hex << static_cast<unsigned>(first);
        EXPECT_FALSE(isEscaped(first - 1) || isEscaped(last + 1)) << std::hex << static_cast<unsigned>(first);
    }
    for (const char32_t visible : {0x20U, 0x3000U, 0xe000U, 0xf8ffU, 0xfffcU, 0xfffdU, 0xf0000U, 0x10ffffU})
        EXPECT_FALSE(isEscaped(visible)) << std::hex << static_cast<unsigned>(visible);
}

TEST(JsonString, EscapesInvisibleCharactersAsUtf16AndOtherBytesAsLoneSurrogates) {
    EXPECT_EQ(jsonString("\"\\\n\u00e9\U0001f4be\u202e\U000e0041\xff"),
              "\"\\\"\\\\\\u000a\u00e9\U0001f4be\\u202e\\udb40\\udc41\\udcff\"");
}
