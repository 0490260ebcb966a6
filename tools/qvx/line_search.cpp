#include "line_search.h"

#include <algorithm>
#include <cctype>
#include <ctime>

#include "byte_size.h"

namespace tarnwick::qvx {

namespace {

constexpr std::chrono::seconds freeTime(10);
constexpr std::chrono::seconds slowest(1);  // for each MiB

std::chrono::nanoseconds timeOf(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// It advances every few milliseconds. That is exact enough for the sum of many times, and costs almost nothing.
std::chrono::nanoseconds coarseTime() { return timeOf(CLOCK_MONOTONIC_COARSE); }

bool isPlain(char byte) { return static_cast<unsigned char>(byte) >= ' '; }

// Whether the character after a backslash makes something that contains no line end, inside of brackets and outside.
bool isHarmlessEscape(char byte) {
    return std::ispunct(static_cast<unsigned char>(byte)) || std::string_view("dwSbB").find(byte) != std::string::npos;
}

// Whether a bracket expression that begins here contains no line end: it is not negated and contains no [:class:].
bool isHarmlessClass(std::string_view rest) { return !rest.starts_with("[^") && !rest.starts_with("[["); }

// Groups with a question mark or an asterisk may set options, look around, or forbid to go back.
bool isHarmlessGroup(std::string_view rest) {
    return rest.starts_with("(?:") || (!rest.starts_with("(?") && !rest.starts_with("(*"));
}

// Errs on the side of "no". Then each line is searched alone, which takes about twice as long.
bool canMatchNoLineEnd(std::string_view expression) {
    bool inBrackets = false;
    for (std::size_t i = 0; i < expression.size(); ++i) {
        const auto rest = expression.substr(i);
        const char byte = rest.front();
        if (!isPlain(byte) || (byte == '\\' && (rest.size() < 2 || !isHarmlessEscape(rest[1])))) return false;
        if (byte == '\\') ++i;
        if (byte == '[' && (inBrackets || !isHarmlessClass(rest))) return false;
        if (rest.starts_with("[]")) ++i;
        if (byte == '[' || byte == ']') inBrackets = byte == '[';
        if (byte == '(' && !inBrackets && !isHarmlessGroup(rest)) return false;
    }
    return true;
}

}  // namespace

Result<LineExpression> LineExpression::compile(std::string_view expression, bool literal, bool ignoreCase) {
    auto compiled = RegularExpression::compile(expression, {literal, ignoreCase, true});
    if (!compiled) return compiled.error();
    const bool staysInLine = literal ? expression.find('\n') == std::string_view::npos : canMatchNoLineEnd(expression);
    return LineExpression{std::move(*compiled), staysInLine};
}

Result<std::optional<LineSearch::Line>> LineSearch::next(std::string_view text, std::size_t from) {
    const auto begin = coarseTime();
    const auto line = find(text, from);
    time_ += coarseTime() - begin;
    searched_ += (line ? line->end : text.size()) - std::min(from, text.size());
    if (isTooSlow()) return Error{"less than 1 MiB/s"};
    return line;
}

// While the program is stopped or waits for a processor, only the first time advances. The second one costs more.
bool LineSearch::isTooSlow() const {
    const auto limit = freeTime + searched_ / mebibyte * slowest;
    return time_ > limit && timeOf(CLOCK_THREAD_CPUTIME_ID) > limit;
}

std::optional<LineSearch::Line> LineSearch::find(std::string_view text, std::size_t from) {
    if (from >= text.size()) return std::nullopt;
    if (!staysInLine_) return nextAlone(text, from);
    auto line = nextOfAll(text, from);
    if (line) return *line;
    // A single line is allowed more steps, because it is shorter.
    staysInLine_ = false;
    return nextAlone(text, from);
}

// Searches all lines at once.
Result<std::optional<LineSearch::Line>> LineSearch::nextOfAll(std::string_view text, std::size_t from) {
    const auto found = search_.find(text, from);
    if (!found) return found.error();
    // After the last line end, an expression that matches nothing finds a line that does not exist.
    if (!*found || ((*found)->begin == text.size() && text.back() == '\n')) return std::optional<Line>();
    const std::size_t at = (*found)->begin;
    const std::size_t lineEnd = text.substr(from, at - from).rfind('\n');
    const std::size_t begin = lineEnd == std::string_view::npos ? from : from + lineEnd + 1;
    return std::optional(Line{begin, std::min(text.find('\n', at), text.size())});
}

std::optional<LineSearch::Line> LineSearch::nextAlone(std::string_view text, std::size_t from) {
    for (std::size_t end = 0; from < text.size(); from = end + 1) {
        end = std::min(text.find('\n', from), text.size());
        const auto found = search_.find(text.substr(from, end - from));
        if (!found || *found) return Line{from, end, !found};
    }
    return std::nullopt;
}

std::optional<ExpressionSearch::Match> LineSearch::matchIn(std::string_view line, std::size_t from) {
    while (from < line.size()) {
        const auto found = search_.find(line, from);
        if (!found || !*found) break;
        if ((*found)->end > (*found)->begin) return **found;
        from = (*found)->end + 1;
    }
    return std::nullopt;
}

}  // namespace tarnwick::qvx
