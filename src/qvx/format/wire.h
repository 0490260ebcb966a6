// Numbers and texts in the form that the archive stores: little-endian, varint (unsigned LEB128) and zigzag.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>
#include <vector>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

template <std::size_t width, typename Number>
void putLittleEndian(std::uint8_t* to, Number number) {
    for (std::size_t i = 0; i < width; ++i) to[i] = static_cast<std::uint8_t>(number >> (8 * i));
}

template <std::size_t width>
std::uint64_t getLittleEndian(const std::uint8_t* from) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < width; ++i) number |= std::uint64_t{from[i]} << (8 * i);
    return number;
}

inline std::uint64_t zigzag(std::int64_t number) {
    return (static_cast<std::uint64_t>(number) << 1) ^ static_cast<std::uint64_t>(number >> 63);
}

inline std::int64_t unzigzag(std::uint64_t number) {
    return static_cast<std::int64_t>((number >> 1) ^ (~(number & 1) + 1));
}

// Sums and differences of times wrap around: values from a hostile archive must not overflow, and the sum undoes the
// difference exactly.
inline std::int64_t wrappingAdd(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
inline std::int64_t wrappingSubtract(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// Appends to a buffer that the caller reuses.
class WireWriter {
public:
    explicit WireWriter(std::vector<std::uint8_t>& out) : out_(out) {}

    void byte(std::uint8_t value) { out_.push_back(value); }
    void bytes(Bytes bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
    void varint(std::uint64_t number) {
        for (; number >= 0x80; number >>= 7) byte(static_cast<std::uint8_t>(number | 0x80));
        byte(static_cast<std::uint8_t>(number));
    }
    void signedVarint(std::int64_t number) { varint(zigzag(number)); }
    void text(std::string_view text) {
        varint(text.size());
        out_.insert(out_.end(), text.begin(), text.end());
    }
    void fixed64(std::uint64_t number) {
        std::array<std::uint8_t, 8> raw{};
        putLittleEndian<8>(raw.data(), number);
        bytes(raw);
    }

private:
    std::vector<std::uint8_t>& out_;
};

// Reads numbers and texts from the front of hostile bytes. After the first value that is missing or malformed, every
// result is zero or empty and ok() stays false.
class WireReader {
public:
    explicit WireReader(Bytes bytes) : rest_(bytes) {}

    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] bool atEnd() const { return rest_.empty(); }
    [[nodiscard]] std::size_t left() const { return rest_.size(); }
    void fail() {
        ok_ = false;
        rest_ = {};
    }

    Bytes bytes(std::uint64_t count) {
        if (count > rest_.size()) {
            fail();
            return {};
        }
        const Bytes read = rest_.first(static_cast<std::size_t>(count));
        rest_ = rest_.subspan(read.size());
        return read;
    }
    std::uint8_t byte() {
        const Bytes read = bytes(1);
        return read.empty() ? std::uint8_t{0} : read[0];
    }
    std::uint64_t fixed64() {
        const Bytes read = bytes(8);
        return read.empty() ? 0 : getLittleEndian<8>(read.data());
    }
    // Refuses a number of more than 64 bits and a form longer than needed: each number has exactly one form.
    std::uint64_t varint() {
        std::uint64_t number = 0;
        for (unsigned shift = 0; shift < 70; shift += 7) {
            const std::uint8_t part = byte();
            if (!ok_ || (shift == 63 && part > 1) || (part == 0 && shift > 0)) break;
            number |= std::uint64_t{part & 0x7fU} << shift;
            if (!(part & 0x80)) return number;
        }
        fail();
        return 0;
    }
    std::int64_t signedVarint() { return unzigzag(varint()); }

    // A number that must fit the type of its field.
    template <typename Number>
    Number number(std::uint64_t max = std::numeric_limits<Number>::max()) {
        const std::uint64_t number = varint();
        if (number > max) fail();
        return static_cast<Number>(number);
    }

    // A count of items that take at least `minItemSize` bytes each. Refuses a count that the rest of the input cannot
    // contain, before any memory is allocated for it.
    std::size_t count(std::size_t minItemSize) {
        const std::uint64_t count = varint();
        if (count > left() / minItemSize) fail();
        return ok_ ? static_cast<std::size_t>(count) : 0;
    }
    std::string_view text() {
        const Bytes read = bytes(varint());
        return {reinterpret_cast<const char*>(read.data()), read.size()};
    }

private:
    Bytes rest_;
    bool ok_ = true;
};

}  // namespace tarnwick::qvx
