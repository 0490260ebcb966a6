#include "path_pattern.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace tarnwick::qvx {

namespace {

// The byte of \xHH at the beginning of the text.
std::optional<char> escapedByte(std::string_view text) {
    unsigned value = 0;
    if (text.size() < 4 || !text.starts_with("\\x")) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + 4, value, 16);
    if (error != std::errc() || end != text.data() + 4) return std::nullopt;
    return static_cast<char>(value);
}

// Replaces each \xHH, and also \\ if the text is no glob. In a glob, \\ and other escapes belong to the glob.
std::string unescape(std::string_view text, bool glob) {
    std::string plain;
    while (!text.empty()) {
        const auto byte = escapedByte(text);
        const bool pair = text.starts_with("\\\\");
        if (glob && (byte || pair)) plain += '\\';
        plain += byte ? *byte : text.front();
        text.remove_prefix(byte ? 4 : pair ? 2 : 1);
    }
    return plain;
}

}  // namespace

PathPattern::PathPattern(const std::string& given, bool anyDepth)
    : literal_(entryPath(given)), unescaped_(entryPath(unescape(given, false))) {
    if (given.find_first_of("*?[") != std::string::npos) glob_ = entryPath(unescape(given, true));
    matchesName_ = (anyDepth || isGlob()) && literal_.find('/') == std::string::npos;
}

bool PathPattern::matches(std::string_view path) const {
    const std::string subject(matchesName_ ? path.substr(path.rfind('/') + 1) : path);
    if (subject == literal_ || subject == unescaped_) return true;
    return isGlob() && fnmatch(glob_.c_str(), subject.c_str(), 0) == 0;
}

bool PathPattern::matchesAtOrAbove(std::string_view path) const {
    if (literal_.empty() || matches(path)) return true;  // the root directory is above everything
    for (auto end = path.rfind('/'); end != std::string_view::npos; end = path.substr(0, end).rfind('/'))
        if (matches(path.substr(0, end))) return true;
    return false;
}

std::string entryPath(std::string path) {
    path.erase(0, std::min(path.find_first_not_of('/'), path.size()));
    path.erase(path.find_last_not_of('/') + 1);
    return path.starts_with("./") ? entryPath(path.substr(2)) : path;
}

}  // namespace tarnwick::qvx
