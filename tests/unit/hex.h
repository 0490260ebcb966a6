// Bytes written as hexadecimal digits; blanks are ignored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnwick::test {

inline std::vector<std::uint8_t> fromHex(std::string digits) {
    std::erase(digits, ' ');
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

}  // namespace tarnwick::test
