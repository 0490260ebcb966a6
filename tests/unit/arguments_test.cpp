#include "app/arguments.h"

#include <gtest/gtest.h>

using tarnwick::ArgumentMap;

namespace {

ArgumentMap parse(const std::vector<const char*>& arguments) {
    return tarnwick::parseArguments(static_cast<int>(arguments.size()), arguments.data());
}

TEST(Arguments, GatherValuesUnderTheirOption) {
    EXPECT_EQ(parse({"tarnwick", "stray", "--a", "1", "", "2", "-", "x", "--a", "3", "--b"}),
              (ArgumentMap{{"--a", {"1", "", "2", "3"}}, {"-", {"x"}}, {"--b", {}}}));
    EXPECT_EQ(parse({"-started-as-an-option", "value"}), (ArgumentMap{{"-started-as-an-option", {"value"}}}));
    EXPECT_EQ(parse({}), ArgumentMap{});
}

}  // namespace
