#include "qvx/remote/answer_head.h"

#include <strings.h>

#include <charconv>
#include <limits>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxValueLength = 256;  // of a tag and a date, which are kept
constexpr std::uint64_t maxObjectSize = std::numeric_limits<std::int64_t>::max();

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view spaces = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(spaces);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(spaces) + 1 - begin);
}

bool isNamed(std::string_view name, std::string_view expected) {
    return name.size() == expected.size() && ::strncasecmp(name.data(), expected.data(), name.size()) == 0;
}

// Reads a number and what follows it.
std::optional<std::uint64_t> readNumber(std::string_view& text, std::string_view follows) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number > maxObjectSize) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (!text.starts_with(follows)) return std::nullopt;
    text.remove_prefix(follows.size());
    return number;
}

// "bytes 0-65535/1073741824"
void readRange(std::string_view text, AnswerHead& head) {
    constexpr std::string_view unit = "bytes ";
    if (!text.starts_with(unit)) return;
    text.remove_prefix(unit.size());
    const auto begin = readNumber(text, "-");
    const auto last = begin ? readNumber(text, "/") : std::nullopt;
    const auto size = last ? readNumber(text, "") : std::nullopt;
    if (!size || !text.empty() || *begin > *last || *last >= *size) return;
    head.begin = begin;
    head.object.size = *size;
}

}  // namespace

void AnswerHead::add(std::string_view line) {
    if (line.starts_with("HTTP/")) *this = {};
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const auto name = line.substr(0, colon);
    const auto value = trimmed(line.substr(colon + 1)).substr(0, maxValueLength);
    if (isNamed(name, "content-range")) readRange(value, *this);
    if (isNamed(name, "etag")) object.tag = value;
    if (isNamed(name, "last-modified")) object.modified = value;
}

}  // namespace tarnwick::qvx
