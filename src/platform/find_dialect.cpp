#include "platform/find_dialect.h"

#include <algorithm>

namespace tarnwick {

namespace {

bool ascendsWithin(char first, char last, char lowest, char highest) {
    return lowest <= first && first <= last && last <= highest;
}

// A range that runs backwards is empty by default and an error in POSIX. Which way a range between two kinds of
// character runs is up to the locale, so that only the plain ones are known to be safe.
bool isPlainRange(char first, char last) {
    return ascendsWithin(first, last, '0', '9') || ascendsWithin(first, last, 'a', 'z') ||
           ascendsWithin(first, last, 'A', 'Z');
}

// The length of the bracket expression at the start of `text`, or 0 when the two dialects differ in it.
std::size_t plainBracketLength(std::string_view text) {
    std::size_t at = 1;
    if (text.substr(at).starts_with('^')) ++at;
    const auto first = at;
    for (; at < text.size() && (text[at] != ']' || at == first); ++at) {
        const auto rest = text.substr(at);
        // [:alpha:] is a class in POSIX and five letters by default.
        if (rest.starts_with("[:") || rest.starts_with("[.") || rest.starts_with("[=")) return 0;
        if (rest.size() < 3 || rest[1] != '-' || rest[2] == ']') continue;
        if (!isPlainRange(rest[0], rest[2])) return 0;
        at += 2;
    }
    return std::min(at + 1, text.size());
}

// How much of `text`, which is not empty, the two dialects read alike; 0 when they differ in its first element. `+` and
// `?` repeat by default where they stand alone, in POSIX behind a backslash; intervals are POSIX only; a second star is
// an error in POSIX. Alternation is no part of POSIX, so it is left to the dialect that was asked for.
std::size_t commonElementLength(std::string_view text) {
    switch (text[0]) {
        case '+':
        case '?': return 0;
        case '*': return text.starts_with("**") ? 0 : 1;
        case '[': return plainBracketLength(text);
        case '\\': return text.size() < 2 || std::string_view("+?{|").find(text[1]) != std::string_view::npos ? 0 : 2;
        default: return 1;
    }
}

}  // namespace

std::string regexTypeOption(std::string_view expression) {
    while (!expression.empty()) {
        const auto length = commonElementLength(expression);
        if (length == 0) return "-regextype posix-basic ";
        expression.remove_prefix(length);
    }
    return {};
}

}  // namespace tarnwick
