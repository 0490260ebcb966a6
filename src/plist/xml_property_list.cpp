#include "plist/xml_property_list.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <map>

#include "base/handle.h"
#include "base/utf8.h"

namespace tarnwick {

namespace {

constexpr std::size_t maxNesting = 512;
constexpr std::string_view blanks = " \t\r\n";
constexpr std::string_view base64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::chrono::sys_seconds epoch = std::chrono::sys_days(std::chrono::year(2001) / 1 / 1);

using Value = std::optional<PropertyListValue>;

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// All of `text` as a number, or nothing. Independent of the locale.
template <typename Number, typename... Format>
std::optional<Number> number(std::string_view text, Format... format) {
    Number parsed{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed, format...);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return parsed;
}

// from_chars does not accept a plus sign, but would accept a minus sign after the plus that is removed here.
std::string_view withoutPlus(std::string_view text) {
    return text.size() > 1 && text[0] == '+' && text[1] != '-' ? text.substr(1) : text;
}

Value integerFrom(std::string_view text) {
    text = trimmed(text);
    // from_chars does not know the prefix, and would accept a minus sign after it.
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    text = hexadecimal ? text.substr(2) : withoutPlus(text);
    if (hexadecimal && text.starts_with('-')) return std::nullopt;
    const int base = hexadecimal ? 16 : 10;
    if (const auto parsed = number<std::int64_t>(text, base)) return PropertyListValue{*parsed};
    if (const auto parsed = number<std::uint64_t>(text, base)) return PropertyListValue{*parsed};
    return std::nullopt;
}

Value realFrom(std::string_view text) {
    const auto parsed = number<double>(withoutPlus(trimmed(text)));
    return parsed ? Value(PropertyListValue{*parsed}) : std::nullopt;
}

// Accepts only YYYY-MM-DDTHH:MM:SSZ.
Value dateFrom(std::string_view text) {
    using namespace std::chrono;
    text = trimmed(text);
    constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
    const auto fits = [](char byte, char pattern) {
        return pattern == 'd' ? byte >= '0' && byte <= '9' : byte == pattern;
    };
    if (!std::equal(text.begin(), text.end(), form.begin(), form.end(), fits)) return std::nullopt;
    const auto field = [&](std::size_t at, std::size_t width) { return *number<unsigned>(text.substr(at, width), 10); };
    const year_month_day day(year(static_cast<int>(field(0, 4))), month(field(5, 2)), std::chrono::day(field(8, 2)));
    const unsigned hour = field(11, 2), minute = field(14, 2), second = field(17, 2);
    if (!day.ok() || day.year() < year(1) || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto moment = sys_days(day) + hours(hour) + minutes(minute) + seconds(second);
    return PropertyListValue{PropertyListDate{static_cast<double>((moment - epoch).count())}};
}

// Base64 with blanks anywhere. Digits after padding, and an incomplete group at the end, are errors.
Value dataFrom(std::string_view text) {
    PropertyListData data;
    std::uint32_t group = 0;
    int filled = 0, padding = 0;
    for (const char each : text) {
        if (blanks.find(each) != std::string_view::npos) continue;
        const bool pads = each == '=';
        const auto digit = pads ? 0 : base64Alphabet.find(each);
        if (pads ? filled < 2 : digit == std::string_view::npos || padding > 0) return std::nullopt;
        padding += pads ? 1 : 0;
        group = group << 6 | static_cast<std::uint32_t>(digit);
        if (++filled < 4) continue;
        for (int shift = 16; shift >= 8 * padding; shift -= 8)
            data.push_back(static_cast<std::byte>(group >> shift & 0xff));
        filled = 0;
        group = 0;
    }
    return filled == 0 ? Value(PropertyListValue{std::move(data)}) : std::nullopt;
}

Value stringFrom(std::string_view text) { return PropertyListValue{std::string(text)}; }

template <bool Truth>
Value booleanFrom(std::string_view text) {
    return trimmed(text).empty() ? Value(PropertyListValue{Truth}) : std::nullopt;
}

struct LeafElement {
    std::string_view name;
    Value (*from)(std::string_view text);
};

constexpr std::array<LeafElement, 8> leafElements{{
    {"key", stringFrom},
    {"string", stringFrom},
    {"integer", integerFrom},
    {"real", realFrom},
    {"date", dateFrom},
    {"data", dataFrom},
    {"true", booleanFrom<true>},
    {"false", booleanFrom<false>},
}};

// Builds the value from the events of expat. The first fault stops the parser. expat may still deliver an event or two
// after that; every handler ignores them.
class Builder {
public:
    explicit Builder(XML_Parser parser) : parser_(parser) {}

    void start(std::string_view name) {
        if (leaf_) return fail();
        if (!open_.empty()) return startValue(name);
        if (name != "plist") return fail();
        open_.push_back({Kind::root, {}, {}});
    }

    void end() {
        if (leaf_) return endLeaf();
        auto ended = std::move(open_.back());
        open_.pop_back();
        if (ended.kind == Kind::root) return;
        if (ended.key) return fail();
        place(std::move(ended.container));
    }

    void text(std::string_view piece) {
        if (leaf_) {
            text_ += piece;
        } else if (!trimmed(piece).empty()) {
            fail();
        }
    }

    void fail() {
        failed_ = true;
        XML_StopParser(parser_, XML_FALSE);
    }

    [[nodiscard]] bool failed() const { return failed_; }
    Value releaseRoot() { return std::move(root_); }

private:
    enum class Kind { root, array, dictionary };

    struct Open {
        Kind kind;
        PropertyListValue container;
        std::optional<std::string> key;  // read; its value comes next
    };

    void startValue(std::string_view name) {
        const auto& parent = open_.back();
        const bool expectsKey = parent.kind == Kind::dictionary && !parent.key;
        const bool complete = parent.kind == Kind::root && root_;
        if (complete || expectsKey != (name == "key")) return fail();
        if (name == "array") return startContainer(Kind::array, PropertyListArray{});
        if (name == "dict") return startContainer(Kind::dictionary, PropertyListDictionary{});
        const auto* leaf = std::find_if(leafElements.begin(), leafElements.end(),
                                        [&](const LeafElement& element) { return element.name == name; });
        if (leaf == leafElements.end()) return fail();
        leaf_ = leaf;
        text_.clear();
    }

    template <typename Container>
    void startContainer(Kind kind, Container container) {
        // Readers of the value recurse, so the nesting must be limited.
        if (open_.size() > maxNesting) return fail();
        open_.push_back({kind, PropertyListValue{std::move(container)}, {}});
    }

    void endLeaf() {
        auto value = leaf_->from(text_);
        const bool isKey = leaf_->name == "key";
        leaf_ = nullptr;
        if (!value) return fail();
        if (isKey) {
            open_.back().key = std::move(std::get<std::string>(value->value));
        } else {
            place(std::move(*value));
        }
    }

    void place(PropertyListValue value) {
        auto& parent = open_.back();
        if (parent.kind == Kind::root) {
            root_ = std::move(value);
        } else if (parent.kind == Kind::array) {
            std::get<PropertyListArray>(parent.container.value).push_back(std::move(value));
        } else {
            auto& entries = std::get<PropertyListDictionary>(parent.container.value);
            entries.insert_or_assign(std::move(*parent.key), std::move(value));
            parent.key.reset();
        }
    }

    XML_Parser parser_;
    std::vector<Open> open_;
    const LeafElement* leaf_ = nullptr;
    std::string text_;
    Value root_;
    bool failed_ = false;
};

using Parser = std::unique_ptr<XML_ParserStruct, FreeWith<XML_ParserFree>>;

Builder* activeBuilder(void* userData) {
    auto* builder = static_cast<Builder*>(userData);
    return builder->failed() ? nullptr : builder;
}

// noexcept: an exception must not pass through the frames of expat, so running out of memory ends the program here.
void onStart(void* userData, const XML_Char* name, const XML_Char**) noexcept {
    if (auto* builder = activeBuilder(userData)) builder->start(name);
}

// NOLINTNEXTLINE(bugprone-exception-escape): on purpose, see above
void onEnd(void* userData, const XML_Char*) noexcept {
    if (auto* builder = activeBuilder(userData)) builder->end();
}

void onText(void* userData, const XML_Char* text, int length) noexcept {
    if (auto* builder = activeBuilder(userData)) builder->text({text, static_cast<std::size_t>(length)});
}

// Refused, because everything that makes a small document large, or a reader slow, is declared in an internal subset.
void onDoctype(void* userData, const XML_Char*, const XML_Char*, const XML_Char*, int hasInternalSubset) noexcept {
    if (auto* builder = activeBuilder(userData); builder && hasInternalSubset != 0) builder->fail();
}

// After a document type, expat would silently skip a reference to an entity that is not declared.
void onSkippedEntity(void* userData, const XML_Char*, int) noexcept {
    if (auto* builder = activeBuilder(userData)) builder->fail();
}

struct Prolog {
    std::string_view before;
    std::string_view after;
};

// Summaries written by this program have a document type line in which the public and the system identifier are joined
// inside one pair of quotes. No XML parser accepts that, so such a line in its usual place is removed.
Prolog removeMalformedDocumentType(std::string_view bytes) {
    constexpr std::string_view opening = "<!DOCTYPE plist PUBLIC \"";
    auto at = bytes.starts_with("<?xml") ? bytes.find("?>") : 0;
    if (at == std::string_view::npos) return {bytes, {}};
    at = bytes.find_first_not_of(blanks, at == 0 ? 0 : at + 2);
    if (at == std::string_view::npos || !bytes.substr(at).starts_with(opening)) return {bytes, {}};
    const auto quote = bytes.find_first_of("\"<>", at + opening.size());
    if (quote == std::string_view::npos || !bytes.substr(quote).starts_with("\">")) return {bytes, {}};
    return {bytes.substr(0, at), bytes.substr(quote + 2)};
}

bool parsePiece(XML_Parser parser, std::string_view bytes, bool last) {
    return XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), last) == XML_STATUS_OK;
}

// The length of the character at the start of `text`; 0 when XML cannot contain it.
std::size_t xmlCharacterLength(std::string_view text) {
    const auto character = firstCharacter(text);
    const bool control = character.point < 0x20 && blanks.find(text[0]) == std::string_view::npos;
    return control || character.point == 0xfffe || character.point == 0xffff ? 0 : character.length;
}

void appendCharacter(std::string& out, std::string_view character) {
    switch (character.front()) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '\r':  // otherwise a reader turns it into a line feed
            out += "&#13;";
            break;
        default: out += character;
    }
}

std::string escaped(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const auto length = xmlCharacterLength(text);
        if (length > 0) appendCharacter(out, text.substr(0, length));
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return out;
}

std::string base64(const PropertyListData& data) {
    std::string out;
    for (std::size_t at = 0; at < data.size(); at += 3) {
        const auto count = std::min<std::size_t>(3, data.size() - at);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < count ? std::to_integer<std::uint32_t>(data[at + i]) : 0);
        for (std::size_t i = 0; i < 4; ++i) out += i <= count ? base64Alphabet[group >> (18 - 6 * i) & 0x3f] : '=';
    }
    return out;
}

std::string decimal(auto number) {
    std::array<char, 64> digits{};
    return {digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr};
}

std::string padded(unsigned number, std::size_t width) {
    auto digits = decimal(number);
    return digits.insert(0, width - std::min(width, digits.size()), '0');
}

// A date that the text form cannot express (not a number, outside the years 1 to 9999) becomes the nearest one that it
// can.
std::string dateText(PropertyListDate date) {
    using namespace std::chrono;
    constexpr double earliest = -63113904000, latest = 252423993599;
    const auto bounded = date.secondsSince2001 >= earliest ? std::min(date.secondsSince2001, latest) : earliest;
    const auto moment = epoch + seconds(static_cast<std::int64_t>(std::floor(bounded)));
    const auto midnight = floor<days>(moment);
    const year_month_day day(midnight);
    const hh_mm_ss clock(moment - midnight);
    const auto two = [](auto count) { return padded(static_cast<unsigned>(count), 2); };
    return padded(static_cast<unsigned>(int(day.year())), 4) + "-" + two(unsigned(day.month())) + "-" +
           two(unsigned(day.day())) + "T" + two(clock.hours().count()) + ":" + two(clock.minutes().count()) + ":" +
           two(clock.seconds().count()) + "Z";
}

class Writer {
public:
    explicit Writer(std::string& out) : out_(out) {}

    void write(const PropertyListValue& value) {
        std::visit([this](const auto& content) { put(content); }, value.value);
    }

private:
    void put(bool value) { line(value ? "<true/>" : "<false/>"); }
    void put(std::int64_t value) { element("integer", decimal(value)); }
    void put(std::uint64_t value) { element("integer", decimal(value)); }
    void put(double value) { element("real", decimal(value)); }
    void put(PropertyListUid value) { element("integer", decimal(value.number)); }
    void put(PropertyListDate value) { element("date", dateText(value)); }
    void put(const PropertyListData& value) { element("data", base64(value)); }
    void put(const std::string& value) { element("string", escaped(value)); }

    void put(const PropertyListArray& values) {
        line("<array>");
        ++depth_;
        for (const auto& value : values) write(value);
        --depth_;
        line("</array>");
    }

    void put(const PropertyListDictionary& entries) {
        // Two keys may become equal when characters are left out of them. The last one is written, as it is the last
        // one that a reader keeps.
        std::map<std::string, const PropertyListValue*> written;
        for (const auto& [key, value] : entries) written.insert_or_assign(escaped(key), &value);
        line("<dict>");
        ++depth_;
        for (const auto& [key, value] : written) {
            element("key", key);
            write(*value);
        }
        --depth_;
        line("</dict>");
    }

    void element(const std::string& name, const std::string& content) {
        line("<" + name + ">" + content + "</" + name + ">");
    }

    void line(const std::string& text) { out_.append(depth_, '\t').append(text).append("\n"); }

    std::string& out_;
    std::size_t depth_ = 0;
};

}  // namespace

std::optional<PropertyListValue> parseXmlPropertyList(std::string_view bytes) {
    if (bytes.size() > INT_MAX) return std::nullopt;  // expat counts in int
    const Parser parser(XML_ParserCreate(nullptr));
    if (!parser) return std::nullopt;
    Builder builder(parser.get());
    XML_SetUserData(parser.get(), &builder);
    XML_SetElementHandler(parser.get(), onStart, onEnd);
    XML_SetCharacterDataHandler(parser.get(), onText);
    XML_SetStartDoctypeDeclHandler(parser.get(), onDoctype);
    XML_SetSkippedEntityHandler(parser.get(), onSkippedEntity);
    const auto [before, after] = removeMalformedDocumentType(bytes);
    if (!parsePiece(parser.get(), before, false) || !parsePiece(parser.get(), after, true)) return std::nullopt;
    return builder.releaseRoot();
}

std::string writeXmlPropertyList(const PropertyListValue& root) {
    std::string out =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Vexlor//DTD PLIST 1.0//EN\" \"http://www.vexlor.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n";
    Writer(out).write(root);
    return out += "</plist>\n";
}

}  // namespace tarnwick
