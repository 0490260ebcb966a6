#include "base/visible_text.h"

#include <gtest/gtest.h>

#include "base/json_string.h"
#include "base/utf8.h"

using namespace tarnwick;

TEST(VisibleText, EscapesBytesThatAreNotUtf8) {
    EXPECT_EQ(visibleText("\xc3\xa9\xf0\x9f\x92\xbe [~\xe2\x82["), "\xc3\xa9\xf0\x9f\x92\xbe [~\\xe2\\x82[");
    EXPECT_EQ(visibleText("\u07ff\u0800\ufffd\U00010000\U0010fffe"), "\u07ff\u0800\ufffd\U00010000\U0010fffe");
    for (const std::string raw : {"\x1b", "\u202e", "\U000e0001", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
        EXPECT_EQ(visibleText(raw).size(), 4 * raw.size()) << visibleText(raw);
}

// The number and the sum are those of the characters with general category Cc, Cf, Zl or Zp or the property
// Default_Ignorable_Code_Point, as another implementation of Unicode 17.0 (ICU) has them.
TEST(VisibleText, EscapesExactlyTheInvisibleCharactersOfUnicode) {
    std::size_t count = 0, sum = 0;
    for (char32_t point = 0; point <= 0x10ffff; ++point) {
        if ((point >= 0xd800 && point < 0xe000) || isPrintable({.length = 1, .point = point})) continue;
        ++count;
        sum += point;
    }
    EXPECT_EQ(count, 4273U);
    EXPECT_EQ(sum, 3771574269U);
}

TEST(JsonString, EscapesInvisibleCharactersAsUtf16AndOtherBytesAsLoneSurrogates) {
    EXPECT_EQ(jsonString("\"\\\n\u00e9\U0001f4be\u202e\U000e0041\xff"),
              "\"\\\"\\\\\\u000a\u00e9\U0001f4be\\u202e\\udb40\\udc41\\udcff\"");
}
