#include "platform/find_dialect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using tarnwick::regexTypeOption;

namespace {

const std::string option = "-regextype posix-basic ";

// Every expression here is also run by the real `find` in both dialects.
const std::vector<std::string> expressions{
    "a.b",        ".*",        "a.*b",        "",          "a",         "a*",      "*",           "*a",
    "^*a",        "\\(*a\\)",  "**",          "a**",       "^**a",      "\\w**",   "a*b*",        "a+",
    "+a",         "a\\+",      "\\+",         "a?",        "?",         "a\\?",    "[a-z]+",      "a[+?]",
    "a{2}",       "a\\{2\\}",  "a\\{2",       "\\{",       "{",         "\\}",     "a\\{,2\\}",   "a\\{2,1\\}",
    "(a)",        "\\(a\\)",   "\\(ab\\)\\1", "\\(ab\\)*", "\\(a",      "a\\)",    "a|b",         "a\\|b",
    "a\\|\\{",    "\\|a",      "^a",          "a$",        "^a$",       "a^b",     "a$b",         "^^a",
    "a$$",        "\\(^a\\)",  "\\(a$\\)",    ".*^.*",     "a\\^b",     "a\\$b",   "\\w*",        "\\W",
    "\\s",        "\\S",       "\\<a\\>",     "\\ba",      "a\\Bb",     "\\`a\\'", "\\a",         "\\.",
    "\\*a",       "\\[",       "\\]",         "\\\\",      "\\/*a",     "a\\-b",   "\\n",         "\\",
    "a\\",        "a\nb",      "[ab]",        "[^a]",      "[]a]",      "[^]a]",   "a[]",         "[",
    "[a",         "[[]",       "[[a]",        "[a]]",      "[\\]",      "[\\w]",   "[\\+a]",      "[a^]",
    "[$*.]",      "[a-]",      "[-a]",        "[--a]",     "[%--]",     "[a-z]",   "[z-a]",       "[A-z]",
    "[a-Z]",      "[A-a]",     "[a-\\]",      "[0-9]",     "[a-c-e]",   "[a-a]",   "[[:alpha:]]", "[a[:digit:]]*",
    "[[:foo:]]",  "[[:]",      "[[.a.]]",     "[[=a=]]",   "[:alpha:]", "[a\n]b",  "\xff",        "[\xff]",
    "[\xc3\xa9]", "\xc3\xa9*", "[a-\xc3\xa9]"};

const std::vector<std::string> names{
    "a",   "aa", "ab",  "b",   "aab", "abab", "a+",        "+a",    "+",   "a?",   "?",        "?a",
    "*",   "*a", "**a", "a*",  "{",   "a{2",  "a{2}",      "a{,2}", "(a)", "a|b",  "|a",       "a^b",
    "a$b", "^a", "a$",  "^a$", "]",   "[",    "[a",        "a]",    "\\",  "\\a",  "a\\b",     "a-b",
    "-",   "_",  "w",   "n",   ":",   ":a",   "[:alpha:]", "0",     "Z",   "\xff", "\xc3\xa9", "\xc3\xa9\xc3\xa9",
    "a b", " ",  "a'b", "a.b", ".",   ",2"};

class FindDialect : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "dialect.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        std::ofstream list(folder_ / "list", std::ios::binary);
        fs::create_directory(folder_ / "files");
        for (const auto& name : names) {
            // A path that `find` is given comes out as it went in, so that an expression sees the bare name.
            if (name == "." || name == "-") continue;
            std::ofstream(folder_ / "files" / name);
            list << name << '\0';
        }
    }
    void TearDown() override { fs::remove_all(folder_); }

    // The exit status and the matches.
    std::string find(const std::string& regexType, const std::string& expression, const std::string& locale) const {
        std::string quoted = expression;
        for (auto at = quoted.find('\''); at != std::string::npos; at = quoted.find('\'', at + 4))
            quoted.replace(at, 1, "'\\''");
        const auto command = "cd '" + (folder_ / "files").string() + "' && LC_ALL=" + locale +
                             " find -files0-from ../list " + regexType + "-regex '" + quoted + "' 2>/dev/null";
        FILE* pipe = popen(command.c_str(), "r");
        std::string output;
        for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) output.push_back(static_cast<char>(byte));
        return std::to_string(pclose(pipe)) + "\n" + output;
    }

    fs::path folder_;
};

TEST_F(FindDialect, NoOptionIsGivenWhereTheTwoDialectsDiffer) {
    std::size_t differing = 0, plain = 0;
    for (const auto& expression : expressions) {
        const bool optionGiven = !regexTypeOption(expression).empty();
        for (const std::string locale : {"C", "C.UTF-8"}) {
            const bool same = find("", expression, locale) == find(option, expression, locale);
            EXPECT_TRUE(same || optionGiven) << expression << " in " << locale;
            differing += same ? 0 : 1;
        }
        plain += optionGiven ? 0 : 1;
    }
    // Guards against a `find` that fails for both dialects alike, and against an option that is always given.
    EXPECT_GT(differing, 30U);
    EXPECT_GT(plain, 60U);
}

TEST(RegexTypeOption, IsGivenForWhatOnlyOneDialectRepeatsOrGroups) {
    for (const char* each :
         {"a+", "a?", "a\\+", "a\\?", "a\\{2\\}", "a\\|b", "a**", "[[:alpha:]]", "[z-a]", "x[ab]+", "a\\"})
        EXPECT_EQ(regexTypeOption(each), option) << each;
}

TEST(RegexTypeOption, LeavesTheCommandLineAloneOtherwise) {
    for (const char* each :
         {".*\\/system.log", ".*\\/hostdump_.*", ".*", ".*\\/panic-.*", ".*\\/*.crash.*", ".*\\/wifi.*",
          ".*\\/panic.*.panic", "[0-9]*", "[+?]", "[]+]", "[^]?]x", "\\(a\\)\\1", "a|b{2}"})
        EXPECT_EQ(regexTypeOption(each), "") << each;
}

}  // namespace
