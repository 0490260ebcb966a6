#include "plist/binary_property_list.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tarnwick {

namespace {

constexpr std::string_view magic = "bplist00";
constexpr std::size_t trailerSize = 32;
constexpr int maxNesting = 512;

// The memory that one value needs besides its own bytes, and the limit for all values of a document. Many references of
// one byte each can name the same large value, so the size of the file does not bound the memory.
constexpr std::uint64_t valueCost = 64;
constexpr std::uint64_t maxCost = 256 << 20;
constexpr std::uint64_t baseCost = 1 << 20;
constexpr std::uint64_t costPerByte = 64;

// The years 1 to 9999, which every reader of dates supports. The end is the first moment after them.
constexpr double minDate = -63113904000;
constexpr double endDate = 252423993600;

using Value = std::optional<PropertyListValue>;

// `bytes` must be at most 8.
std::uint64_t bigEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

Value integerFrom(std::string_view bytes) {
    if (bytes.size() < 8) return PropertyListValue{static_cast<std::int64_t>(bigEndian(bytes))};
    const auto low = bigEndian(bytes.substr(bytes.size() - 8));
    const auto asSigned = static_cast<std::int64_t>(low);
    if (bytes.size() == 8) return PropertyListValue{asSigned};
    const auto high = bigEndian(bytes.substr(0, 8));
    if (high == (asSigned < 0 ? ~std::uint64_t{0} : 0)) return PropertyListValue{asSigned};
    if (high == 0) return PropertyListValue{low};
    return std::nullopt;
}

Value realFrom(std::string_view bytes) {
    const auto bits = bigEndian(bytes);
    if (bytes.size() == 4) return PropertyListValue{double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))}};
    return PropertyListValue{std::bit_cast<double>(bits)};
}

Value dateFrom(std::string_view bytes) {
    const auto seconds = std::bit_cast<double>(bigEndian(bytes));
    if (!(seconds >= minDate && seconds < endDate)) return std::nullopt;
    return PropertyListValue{PropertyListDate{seconds}};
}

Value dataFrom(std::string_view bytes) {
    PropertyListData data(bytes.size());
    std::transform(bytes.begin(), bytes.end(), data.begin(), [](char byte) { return static_cast<std::byte>(byte); });
    return PropertyListValue{std::move(data)};
}

Value asciiFrom(std::string_view bytes) {
    if (std::any_of(bytes.begin(), bytes.end(), [](char byte) { return (byte & 0x80) != 0; })) return std::nullopt;
    return PropertyListValue{std::string(bytes)};
}

void appendUtf8(std::string& text, std::uint32_t point) {
    const auto push = [&](std::uint32_t byte) { text.push_back(static_cast<char>(byte)); };
    const auto tail = [&](int shift) { push(0x80 | (point >> shift & 0x3f)); };
    if (point < 0x80) return push(point);
    if (point < 0x800) return push(0xc0 | point >> 6), tail(0);
    if (point < 0x10000) return push(0xe0 | point >> 12), tail(6), tail(0);
    push(0xf0 | point >> 18), tail(12), tail(6), tail(0);
}

// A surrogate without its partner cannot be written in UTF-8.
Value utf16From(std::string_view bytes) {
    std::string text;
    const auto unit = [&](std::size_t at) { return static_cast<std::uint32_t>(bigEndian(bytes.substr(at, 2))); };
    for (std::size_t at = 0; at < bytes.size(); at += 2) {
        auto point = unit(at);
        if (point >= 0xd800 && point < 0xe000) {
            at += 2;
            const auto low = at < bytes.size() ? unit(at) : 0;
            if (point >= 0xdc00 || low < 0xdc00 || low >= 0xe000) return std::nullopt;
            point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
        }
        appendUtf8(text, point);
    }
    return PropertyListValue{std::move(text)};
}

// A position in the objects that cannot leave them.
struct Cursor {
    std::string_view rest;

    std::optional<std::string_view> read(std::uint64_t count) {
        if (count > rest.size()) return std::nullopt;
        const auto bytes = rest.substr(0, count);
        rest.remove_prefix(count);
        return bytes;
    }
};

class Reader {
public:
    explicit Reader(std::string_view document) : document_(document) {}

    Value read() {
        if (!readTrailer()) return std::nullopt;
        budget_ = std::min(maxCost, baseCost + costPerByte * document_.size());
        return object(topObject_, 0);
    }

private:
    bool readTrailer() {
        if (document_.size() < magic.size() + trailerSize) return false;
        const auto tableEnd = document_.size() - trailerSize;
        const auto trailer = document_.substr(tableEnd);
        offsetWidth_ = bigEndian(trailer.substr(6, 1));
        referenceWidth_ = bigEndian(trailer.substr(7, 1));
        objectCount_ = bigEndian(trailer.substr(8, 8));
        topObject_ = bigEndian(trailer.substr(16, 8));
        const auto tableStart = bigEndian(trailer.substr(24, 8));
        if (offsetWidth_ < 1 || offsetWidth_ > 8 || referenceWidth_ < 1 || referenceWidth_ > 8) return false;
        if (tableStart < magic.size() || tableStart > tableEnd) return false;
        objects_ = document_.substr(0, tableStart);
        offsets_ = document_.substr(tableStart, tableEnd - tableStart);
        // The division prevents an overflow by a count near 2^64. The table must fill its place exactly.
        return objectCount_ <= offsets_.size() / offsetWidth_ && objectCount_ * offsetWidth_ == offsets_.size();
    }

    // A cycle of references is not detected as such: it reaches the nesting limit.
    Value object(std::uint64_t reference, int depth) {
        if (reference >= objectCount_ || depth > maxNesting || !charge(valueCost)) return std::nullopt;
        const auto offset = bigEndian(offsets_.substr(reference * offsetWidth_, offsetWidth_));
        if (offset < magic.size() || offset >= objects_.size()) return std::nullopt;
        Cursor cursor{objects_.substr(offset)};
        const auto token = static_cast<unsigned char>(cursor.read(1)->front());
        switch (token >> 4) {
            case 0xa: return array(cursor, token, depth);
            case 0xd: return dictionary(cursor, token, depth);
            default: return leaf(cursor, token);
        }
    }

    Value leaf(Cursor& cursor, unsigned token) {
        const auto low = token & 0xf;
        switch (token >> 4) {
            case 0x0:
                if (low == 8 || low == 9) return PropertyListValue{low == 9};
                return std::nullopt;
            case 0x1: return low <= 4 ? decode(cursor.read(1U << low), integerFrom) : std::nullopt;
            case 0x2: return low == 2 || low == 3 ? decode(cursor.read(1U << low), realFrom) : std::nullopt;
            case 0x3: return low == 3 ? decode(cursor.read(8), dateFrom) : std::nullopt;
            case 0x8: return low < 8 ? decode(cursor.read(low + 1), uidFrom) : std::nullopt;
            case 0x4: return decode(counted(cursor, token, 1), dataFrom);
            case 0x5: return decode(counted(cursor, token, 1), asciiFrom);
            case 0x6: return decode(counted(cursor, token, 2), utf16From);
            default: return std::nullopt;
        }
    }

    static Value uidFrom(std::string_view bytes) { return PropertyListValue{PropertyListUid{bigEndian(bytes)}}; }

    Value decode(std::optional<std::string_view> bytes, Value (*from)(std::string_view)) {
        return bytes && charge(bytes->size()) ? from(*bytes) : std::nullopt;
    }

    Value array(Cursor& cursor, unsigned token, int depth) {
        auto references = counted(cursor, token, referenceWidth_);
        if (!references) return std::nullopt;
        PropertyListArray values;
        while (!references->empty()) {
            auto value = object(nextReference(*references), depth + 1);
            if (!value) return std::nullopt;
            values.push_back(std::move(*value));
        }
        return PropertyListValue{std::move(values)};
    }

    Value dictionary(Cursor& cursor, unsigned token, int depth) {
        auto references = counted(cursor, token, 2 * referenceWidth_);
        if (!references) return std::nullopt;
        auto keys = references->substr(0, references->size() / 2);
        auto values = references->substr(references->size() / 2);
        PropertyListDictionary entries;
        while (!keys.empty()) {
            auto key = object(nextReference(keys), depth + 1);
            auto* name = key ? std::get_if<std::string>(&key->value) : nullptr;
            if (!name) return std::nullopt;
            auto value = object(nextReference(values), depth + 1);
            if (!value) return std::nullopt;
            entries.insert_or_assign(std::move(*name), std::move(*value));
        }
        return PropertyListValue{std::move(entries)};
    }

    // The bytes of an object. Their count is in the token or, when that is 15, in the integer after it.
    static std::optional<std::string_view> counted(Cursor& cursor, unsigned token, std::uint64_t width) {
        std::uint64_t count = token & 0xf;
        if (count == 0xf) {
            const auto marker = cursor.read(1);
            if (!marker || (marker->front() & 0xfc) != 0x10) return std::nullopt;
            const auto bytes = cursor.read(1U << (marker->front() & 3));
            if (!bytes) return std::nullopt;
            count = bigEndian(*bytes);
        }
        if (count > cursor.rest.size() / width) return std::nullopt;
        return cursor.read(count * width);
    }

    std::uint64_t nextReference(std::string_view& references) const {
        const auto reference = bigEndian(references.substr(0, referenceWidth_));
        references.remove_prefix(referenceWidth_);
        return reference;
    }

    bool charge(std::uint64_t cost) {
        if (cost > budget_) return false;
        budget_ -= cost;
        return true;
    }

    std::string_view document_;
    std::string_view objects_;  // with the magic, since offsets count from the start of the document
    std::string_view offsets_;
    std::uint64_t offsetWidth_ = 0;
    std::uint64_t referenceWidth_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    std::uint64_t budget_ = 0;
};

}  // namespace

bool looksLikeBinaryPropertyList(std::string_view bytes) { return bytes.starts_with(magic); }

std::optional<PropertyListValue> parseBinaryPropertyList(std::string_view bytes) {
    return looksLikeBinaryPropertyList(bytes) ? Reader(bytes).read() : std::nullopt;
}

}  // namespace tarnwick
