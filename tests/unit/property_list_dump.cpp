// Prints the property lists of a folder in one canonical form, for a comparison with another implementation's reading:
// a line for each file given on standard input, the value as text or "refused".
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "platform/property_list.h"

namespace {

using namespace tarnwick;

std::string hex(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

struct Canonical {
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(std::int64_t value) const { return "int:" + std::to_string(value); }
    std::string operator()(std::uint64_t value) const { return "int:" + std::to_string(value); }
    std::string operator()(double value) const {
        char text[64];
        std::snprintf(text, sizeof text, "%.17g", value);
        return value != value ? "real:nan" : "real:" + std::string(text);
    }
    std::string operator()(PropertyListDate value) const { return "date" + (*this)(value.secondsSince2001).substr(4); }
    std::string operator()(PropertyListUid value) const { return "uid:" + std::to_string(value.number); }
    std::string operator()(const PropertyListData& value) const {
        return "data:" + hex({reinterpret_cast<const char*>(value.data()), value.size()});
    }
    std::string operator()(const std::string& value) const { return "text:" + hex(value); }
    std::string operator()(const PropertyListArray& values) const {
        std::string text = "[";
        for (const auto& each : values) text += std::visit(*this, each.value) + ",";
        return text + "]";
    }
    std::string operator()(const PropertyListDictionary& entries) const {
        std::string text = "{";
        for (const auto& [key, each] : entries) text += hex(key) + "=" + std::visit(*this, each.value) + ",";
        return text + "}";
    }
};

}  // namespace

int main() {
    std::string path;
    while (std::getline(std::cin, path)) {
        std::ostringstream bytes;
        bytes << std::ifstream(path, std::ios::binary).rdbuf();
        const auto root = parsePropertyList(bytes.str());
        std::cout << (root ? std::visit(Canonical(), root->value) : "refused") << '\n';
    }
}
