#include "progress_figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "base/visible_text.h"
#include "json_object.h"

namespace tarnwick::qvx {

namespace {

constexpr double minElapsed = 0.001;             // seconds
constexpr double minPredicting = 1;              // seconds; earlier, the rate is that of the beginning
constexpr double maxPredicted = 100 * 60 * 60.;  // seconds; a rate of almost nothing predicts nothing

std::string decimal(double value) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

std::string sizeText(double bytes) {
    constexpr std::array units{" KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
    std::size_t unit = 0;
    for (bytes /= 1024; bytes >= 1024 && unit + 1 < units.size(); ++unit) bytes /= 1024;
    return decimal(bytes) + units[unit];
}

std::string timeText(std::uint64_t seconds) {
    const auto twoDigits = [](std::uint64_t number) { return (number < 10 ? ":0" : ":") + std::to_string(number); };
    if (seconds < 3600) return std::to_string(seconds / 60) + twoDigits(seconds % 60);
    return std::to_string(seconds / 3600) + twoDigits(seconds / 60 % 60) + twoDigits(seconds % 60);
}

// What fits into so many columns of a terminal. A character outside of ASCII may be two columns wide.
std::string endOf(const std::string& text, std::size_t columns) {
    std::size_t begin = text.size();
    for (std::size_t at = text.size(); at-- > 0;) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if ((byte & 0xC0U) == 0x80) continue;
        const std::size_t width = byte < 0x80 ? 1 : 2;
        if (width > columns) break;
        columns -= width;
        begin = at;
    }
    return text.substr(begin);
}

std::uint64_t rounded(double value) { return static_cast<std::uint64_t>(std::llround(value)); }

std::string numberOrNull(const std::optional<std::uint64_t>& value) { return value ? std::to_string(*value) : "null"; }

}  // namespace

double ProgressFigures::rate() const { return double(done) / std::max(elapsed, minElapsed); }

std::optional<std::uint64_t> ProgressFigures::percent() const {
    if (!total) return std::nullopt;
    return *total == 0 ? 100 : rounded(double(done) / double(*total) * 100);
}

std::optional<std::uint64_t> ProgressFigures::secondsLeft() const {
    if (!total || (*percent() < 100 && elapsed < minPredicting)) return std::nullopt;
    const double seconds = double(*total - done) / rate();
    return seconds < maxPredicted ? std::optional(rounded(seconds)) : std::nullopt;
}

std::string ProgressFigures::line(std::size_t columns) const {
    std::string text = sizeText(double(done));
    if (total) text += " of " + sizeText(double(*total)) + ", " + std::to_string(*percent()) + '%';
    text += ", " + sizeText(rate()) + "/s";
    if (const auto seconds = secondsLeft()) text += ", " + timeText(*seconds) + " left";
    if (archives > 1) text += ", " + std::to_string(number) + " of " + std::to_string(archives) + ": ";
    if (text.size() > columns) return text.substr(0, columns);
    return archives > 1 ? text + endOf(escapedName(archive), columns - text.size()) : text;
}

std::string ProgressFigures::summary() const {
    return escapedName(archive) + ": " + sizeText(double(done)) + " in " + decimal(elapsed) + " s, " +
           sizeText(rate()) + "/s";
}

std::string ProgressFigures::json() const {
    JsonObject object;
    object.text("archive", archive);
    object.number("bytes", done);
    object.raw("total", numberOrNull(total));
    object.raw("percent", numberOrNull(percent()));
    object.number("rate", rounded(rate()));
    object.raw("seconds_left", numberOrNull(secondsLeft()));
    return object.finish();
}

}  // namespace tarnwick::qvx
