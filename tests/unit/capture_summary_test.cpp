#include "store/capture_summary.h"

#include <gtest/gtest.h>

TEST(FormatByteSize, KeepsItsUnitAndItsSinglePrecision) {
    const std::pair<std::uint64_t, const char*> sizes[] = {
        {0, "0.00B"},          {1023, "1023.00B"},     {1024, "1.00KB"},         {1048575, "1024.00KB"},
        {33570161, "32.01MB"}, {1079110534, "1.00GB"}, {1UL << 50, "1024.00TB"}, {~0UL, "16777216.00TB"},
    };
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(tarnwick::formatByteSize(bytes), text);
}
