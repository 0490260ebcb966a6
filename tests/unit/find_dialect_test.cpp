#include "platform/find_dialect.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "shell_output.h"
#include "temporary_folder.h"

using namespace tarnwick;

namespace {

std::vector<std::string> words(const char* file, std::vector<std::string> more) {
    std::ifstream stream(file);
    more.insert(more.end(), std::istream_iterator<std::string>(stream), {});
    return more;
}

// The real `find` runs each of these in both dialects.
const auto expressions = words(TEST_DATA "/find-expressions.txt", {"", "a\nb", "[a\n]b", "\xff", "[\xff]", "[\xc3\xa9]",
                                                                   "\xc3\xa9*", "[a-\xc3\xa9]", "[\xc3-\xa9]"});
const auto names = words(TEST_DATA "/find-names.txt", {"\xff", "\xc3\xa9", "\xc3\xa9\xc3\xa9", "a b", " "});

TEST(FindDialect, GivesTheOptionExactlyWhereTheDialectsDiffer) {
    const TemporaryFolder folder;
    std::string list;
    for (const auto& name : names) list += folder.write("files/" + name, "").filename().native() + '\0';
    folder.write("list", list);
    // `find` prints a starting point as it was given, so the expression is matched against the bare name.
    const auto find = [&](const std::string& regexType, const std::string& expression) {
        ::setenv("EXPRESSION", expression.c_str(), 1);
        return test::outputOf("cd '" + (folder.path / "files").string() + "' && LC_ALL=C find -files0-from ../list " +
                              regexType + "-regex \"$EXPRESSION\" 2>/dev/null");
    };
    std::size_t differing = 0;
    for (const auto& expression : expressions) {
        const bool differs = find("", expression) != find("-regextype posix-basic ", expression);
        EXPECT_EQ(!regexTypeOption(expression).empty(), differs) << expression;
        differing += differs ? 1 : 0;
    }
    EXPECT_TRUE(differing > 30 && differing < expressions.size() - 60) << "find fails in both dialects";
}

}  // namespace
