// Writes JSON for programs that read the output, one object a line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/json_string.h"

namespace tarnwick::qvx {

// The members of one object in the order in which they are added. A key must not come twice. It is printed as it is, so
// it contains no character that JSON escapes.
class JsonObject {
public:
    template <typename Number>
    void number(const char* key, const std::optional<Number>& value) {
        if (value) member(key) += std::to_string(*value);
    }
    void number(const char* key, std::uint64_t value) { number(key, std::optional(value)); }
    void text(const char* key, std::string_view value) { member(key) += jsonString(value); }
    void raw(const char* key, std::string_view json) { member(key) += json; }

    [[nodiscard]] std::string finish() const { return '{' + text_ + '}'; }

private:
    std::string& member(std::string_view key) {
        text_ += text_.empty() ? "\"" : ", \"";
        return (text_ += key) += "\": ";
    }

    std::string text_;
};

// An array of values that are JSON already.
class JsonArray {
public:
    void add(std::string_view json) { (text_ += text_.empty() ? "" : ", ") += json; }
    [[nodiscard]] std::string finish() const { return '[' + text_ + ']'; }

private:
    std::string text_;
};

}  // namespace tarnwick::qvx
