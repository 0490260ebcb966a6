#include "platform/find_dialect.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "shell_output.h"
#include "temporary_folder.h"

using tarnwick::regexTypeOption;
using tarnwick::test::outputOf;

namespace {

std::vector<std::string> words(const std::string& text, std::vector<std::string> more) {
    std::istringstream stream(text);
    more.insert(more.end(), std::istream_iterator<std::string>(stream), {});
    return more;
}

// The real `find` runs each of these in both dialects.
const auto expressions =
    words(R"(
    a.b .* a.*b a a* * *a ^*a \(*a\) ** a** ^**a \w** a*b* a+ +a a\+ \+ a? ? a\? [a-z]+ a[+?] a{2} a\{2\} a\{2 \{ { \}
    a\{,2\} a\{2,1\} (a) \(a\) \(ab\)\1 \(ab\)* \(a a\) a|b a\|b a\|\{ \|a ^a a$ ^a$ a^b a$b ^^a a$$ \(^a\) \(a$\)
    .*^.* a\^b a\$b \w* \W \s \S \<a\> \ba a\Bb \`a\' \a \. \*a \[ \] \\ \/*a a\-b \n \ a\ [ab] [^a] []a] [^]a]
    a[] [ [a [[] [[a] [a]] [\] [\w] [\+a] [a^] [$*.] [a-] [-a] [--a] [%--] [a-z] [z-a] [A-z] [a-Z] [A-a] [a-\] [0-9]
    [a-c-e] [a-a] [[:alpha:]] [a[:digit:]]* [[:foo:]] [[:] [[.a.]] [[=a=]] [:alpha:] [[.a.]-z] [z-[.a.]] [[.].]] [[.a]
    [[.hyphen.]] [A-[:b:]] [%-[.-.]] ** **a *** ^** ^*** \(**\) \(***\) a\|** ^+a ^\+a ^^ ^^* ^^** a*+ a*\+ \(+a\) \(\?a\)
    \(a\)? a\|+ a\|\+a [a]+ \(a\)\1+ a^+ a$+ \b+a \ba+ \<*a \w? a\|b* \(a\|b\)* \(a\|b\)\{1\} ^a\|b$ a$\|^b \(^a\|b$\)
    \(\|a\)b a\|b\|ab .*\(a\|b\) \| \(a\|*b\) a\|)",
          {"", "a\nb", "[a\n]b", "\xff", "[\xff]", "[\xc3\xa9]", "\xc3\xa9*", "[a-\xc3\xa9]", "[\xc3-\xa9]"});
const auto names = words(R"(
    a aa ab b aab abab a+ +a + a? ? ?a * *a **a a* { a{2 a{2} a{,2} (a) a|b |a a^b a$b ^a a$ ^a$ ] [ [a a] \ \a a\b a-b
    _ w n : :a [:alpha:] 0 Z a'b a.b ,2 ++ a^ a^^ a$$ ^ ^^ ^^^ ** *** )",
                         {"\xff", "\xc3\xa9", "\xc3\xa9\xc3\xa9", "a b", " "});

TEST(FindDialect, GivesTheOptionExactlyWhereTheDialectsDiffer) {
    const tarnwick::TemporaryFolder folder;
    std::string list;
    for (const auto& name : names) list += folder.write("files/" + name, "").filename().native() + '\0';
    folder.write("list", list);
    // `find` prints a starting point as it was given, so the expression is matched against the bare name.
    const auto find = [&](const std::string& regexType, const std::string& expression) {
        ::setenv("EXPRESSION", expression.c_str(), 1);
        return outputOf("cd '" + (folder.path / "files").string() + "' && LC_ALL=C find -files0-from ../list " +
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
