#include "base/visible_text.h"

#include <gtest/gtest.h>

using namespace tarnwick;

TEST(VisibleText, EscapesControlAndInvalidBytes) {
    EXPECT_EQ(visibleText("\xc3\xa9\xf0\x9f\x92\xbe [~\xe2\x82["), "\xc3\xa9\xf0\x9f\x92\xbe [~\\xe2\\x82[");
    for (const std::string raw :
         {"\x1b", "\n", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
        EXPECT_EQ(visibleText(raw).size(), 4 * raw.size()) << visibleText(raw);
}
