#include "entry_conditions.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>

namespace tarnwick::qvx {

namespace {

struct SizeUnit {
    char letter;
    std::uint64_t bytes;
};
constexpr SizeUnit sizeUnits[] = {{'c', 1}, {'k', 1024}, {'M', 1 << 20}, {'G', 1 << 30}};
constexpr std::uint64_t defaultUnit = 512;  // as in find

template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// The time in the form that `qvx list` prints, or the first part of it: UTC.
std::optional<std::int64_t> parseTime(const std::string& text) {
    if (text.starts_with('@')) return parseNumber<std::int64_t>(std::string_view(text).substr(1));
    for (const char* form : {"%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                             "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm parts{};
        const char* end = strptime(text.c_str(), form, &parts);
        const int day = parts.tm_mday;
        if (!end || *end != '\0') continue;
        const std::time_t time = timegm(&parts);
        return parts.tm_mday == day ? std::optional<std::int64_t>(time) : std::nullopt;  // no 31st of June
    }
    return std::nullopt;
}

char letterOf(EntryType type) { return type == EntryType::directory ? 'd' : type == EntryType::link ? 'l' : 'f'; }

}  // namespace

Result<EntryConditions> EntryConditions::parse(const ConditionTexts& texts) {
    EntryConditions conditions;
    if (Status parsed = conditions.parseTypes(texts.types); !parsed) return parsed.error();
    if (Status parsed = conditions.parseNewer(texts.newer); !parsed) return parsed.error();
    for (const auto& text : texts.sizes) {
        const auto size = parseSize(text);
        if (!size)
            return Error{"not a size: a number of 512-byte blocks, or with c, k, M or G; +N for larger", 0, text};
        conditions.sizes_.push_back(*size);
    }
    return conditions;
}

Status EntryConditions::parseTypes(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool letter = std::string_view("fdl").find(text[i]) != std::string_view::npos;
        if (i % 2 == 0 ? !letter : text[i] != ',' || i + 1 == text.size())
            return Error{"not a type: f, d or l, or several with commas", 0, text};
    }
    types_ = text;
    return {};
}

Status EntryConditions::parseNewer(const std::string& text) {
    if (text.empty()) return {};
    newer_ = parseTime(text);
    if (newer_) return {};
    struct stat status {};
    if (::stat(text.c_str(), &status) != 0)
        return Error{"neither a time such as 2026-01-31T12:00:00Z nor a file: " + systemError(errno).text, errno, text};
    newer_ = status.st_mtim.tv_sec;
    return {};
}

std::optional<EntryConditions::Size> EntryConditions::parseSize(std::string_view text) {
    Size size;
    if (text.starts_with('+')) size.order = std::strong_ordering::greater;
    if (text.starts_with('-')) size.order = std::strong_ordering::less;
    if (size.order != std::strong_ordering::equal) text.remove_prefix(1);
    const auto* unit =
        text.empty() ? std::end(sizeUnits) : std::ranges::find(sizeUnits, text.back(), &SizeUnit::letter);
    size.unit = unit == std::end(sizeUnits) ? defaultUnit : unit->bytes;
    if (unit != std::end(sizeUnits)) text.remove_suffix(1);
    const auto count = parseNumber<std::uint64_t>(text);
    size.count = count.value_or(0);
    return count ? std::optional(size) : std::nullopt;
}

bool EntryConditions::Size::match(std::uint64_t bytes) const {
    const std::uint64_t units = bytes / unit + (bytes % unit != 0 ? 1 : 0);
    return (units <=> count) == order;
}

bool EntryConditions::match(const IndexEntry& entry) const {
    if (!types_.empty() && types_.find(letterOf(entry.type)) == std::string::npos) return false;
    if (newer_ && entry.modifiedSeconds <= *newer_) return false;
    return std::ranges::all_of(sizes_, [&](const Size& size) { return size.match(entry.size); });
}

}  // namespace tarnwick::qvx
