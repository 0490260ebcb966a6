#include "platform/find_dialect.h"

#include <algorithm>
#include <optional>

namespace tarnwick {

namespace {

// What precedes an element: the start of the expression, of a group or of an alternative; an anchor; or something that
// can be repeated.
enum class Preceding { start, anchor, atom };

// An element of a bracket expression.
struct BracketElement {
    std::size_t length = 0;             // 0: the dialects differ here
    std::optional<unsigned char> byte;  // none: not a single byte
};

// [:alpha:] is a class in POSIX, but a set of characters in the default dialect.
BracketElement bracketElementAt(std::string_view text) {
    if (text.starts_with("[:")) return {};
    if (!text.starts_with("[.") && !text.starts_with("[=")) return {1, text[0]};
    const auto end = text.find(std::string{text[1], ']'}, 2);
    if (end == std::string_view::npos) return {text.size(), {}};  // an error in both
    if (text[1] == '.' && end == 3) return {end + 2, text[2]};
    return {end + 2, {}};
}

// A descending range is an error in POSIX, but empty in the default dialect.
bool isAscending(const BracketElement& first, const BracketElement& last) {
    return first.byte && last.byte && *first.byte <= *last.byte;
}

// The length of the bracket expression at the start of `text`; 0 when the dialects differ in it.
std::size_t commonBracketLength(std::string_view text) {
    std::size_t at = text.substr(1).starts_with('^') ? 2 : 1;
    for (const auto first = at; at < text.size() && (text[at] != ']' || at == first);) {
        const auto element = bracketElementAt(text.substr(at));
        if (element.length == 0) return 0;
        at += element.length;
        const auto rest = text.substr(at);
        if (rest.size() < 2 || rest[0] != '-' || rest[1] == ']') continue;
        const auto last = bracketElementAt(rest.substr(1));
        if (last.length == 0 || !isAscending(element, last)) return 0;
        at += 1 + last.length;
    }
    return std::min(at + 1, text.size());
}

// Only POSIX has intervals. Operators that are written with a backslash in POSIX have none in the default dialect.
std::size_t commonEscapeLength(std::string_view text, Preceding preceding) {
    if (text.size() < 2) return 1;  // an error in both
    if (text[1] == '{' || (preceding == Preceding::atom && (text[1] == '+' || text[1] == '?'))) return 0;
    return 2;
}

// The length of the element at the start of `text`, which must not be empty; 0 when the dialects differ in it. A second
// star is an error in POSIX. A repetition operator with nothing to repeat is an ordinary character in both.
std::size_t commonElementLength(std::string_view text, Preceding preceding) {
    const bool repeatable = preceding == Preceding::atom;
    switch (text[0]) {
        case '+':
        case '?': return repeatable ? 0 : 1;
        case '*': return repeatable && text.starts_with("**") ? 0 : 1;
        case '[': return commonBracketLength(text);
        case '\\': return commonEscapeLength(text, preceding);
        default: return 1;
    }
}

// What `element` is for the element after it. `^` is an anchor only at the start.
Preceding kindOf(std::string_view element, Preceding preceding) {
    if (element == "^") return preceding == Preceding::start ? Preceding::anchor : Preceding::atom;
    if (element == "\\(" || element == "\\|") return Preceding::start;
    const bool isAnchor = element.size() == 2 && std::string_view("bB<>`'").find(element[1]) != std::string_view::npos;
    return isAnchor ? Preceding::anchor : Preceding::atom;
}

}  // namespace

std::string regexTypeOption(std::string_view expression) {
    auto preceding = Preceding::start;
    while (!expression.empty()) {
        const auto length = commonElementLength(expression, preceding);
        if (length == 0) return "-regextype posix-basic ";
        preceding = kindOf(expression.substr(0, length), preceding);
        expression.remove_prefix(length);
    }
    return {};
}

}  // namespace tarnwick
