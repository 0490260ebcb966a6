#include "platform/property_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>

#include "platform/binary_property_list.h"
#include "platform/info_dictionary.h"
#include "platform/xml_property_list.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace std::literals;

namespace {

std::string plist(std::string_view inner) { return "<plist version=\"1.0\">" + std::string(inner) + "</plist>"; }

std::string repeated(std::string_view text, std::size_t count) {
    std::string out;
    while (count-- > 0) out += text;
    return out;
}

std::string bigEndian(std::uint64_t number, int width) {
    std::string out;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        out.push_back(static_cast<char>(shift < 64 ? number >> shift : 0));
    return out;
}

// A binary document from its objects as bytes, and then whatever a test wants wrong with it.
struct Binary {
    std::vector<std::string> objects;
    std::uint64_t root = 0;
    int offsetWidth = 4, referenceWidth = 1;
    std::optional<std::uint64_t> count = {}, tableOffset = {}, firstOffset = {};

    [[nodiscard]] std::string bytes() const {
        std::string out = "bplist00", table;
        for (const auto& object : objects) {
            table += bigEndian(table.empty() ? firstOffset.value_or(out.size()) : out.size(), offsetWidth);
            out += object;
        }
        const auto tableStart = out.size();
        return out + table + std::string(6, '\0') + bigEndian(static_cast<std::uint64_t>(offsetWidth), 1) +
               bigEndian(static_cast<std::uint64_t>(referenceWidth), 1) + bigEndian(count.value_or(objects.size()), 8) +
               bigEndian(root, 8) + bigEndian(tableOffset.value_or(tableStart), 8);
    }
};

std::optional<PropertyListValue> object(std::string bytes) {
    return parsePropertyList(Binary{{std::move(bytes)}}.bytes());
}

std::string text(const std::optional<PropertyListValue>& value) {
    const auto* held = value ? value->as<std::string>() : nullptr;
    return held ? *held : "(no text)";
}

// clang-format off
TEST(XmlPropertyList, RefusesWhatIsNotOnePropertyList) {
    const auto nested = [](std::size_t depth) { return repeated("<array>", depth) + repeated("</array>", depth); };
    for (const char* document : {"", "<", "<plist/>", "<true/>", "<plist><true></false></plist>",
                                 "<plist><true/></plist><plist><true/></plist>",
                                 "<!DOCTYPE plist SYSTEM 'file:///etc/passwd'><plist><string>&unknown;</string></plist>",
                                 "<?xml version='1.0' encoding='no-such'?><plist><true/></plist>"})
        EXPECT_FALSE(parsePropertyList(document)) << document;
    for (const auto& inner : {""s, "<true/><true/>"s, "<plist><true/></plist>"s, "<bool/>"s, "<key>k</key>"s,
                              "text<true/>"s, "<true>x</true>"s, "<string>a<b/></string>"s,
                              "<dict><key>k</key></dict>"s, "<dict><true/></dict>"s, "<array><key>k</key></array>"s,
                              "<dict><key>k</key><key>l</key><true/></dict>"s,
                              "<dict><key>k</key><true/><true/></dict>"s, "<string>\xff</string>"s,
                              "<string>&#0;</string>"s, nested(513), nested(100000), repeated("<array>", 100000)})
        EXPECT_FALSE(parsePropertyList(plist(inner))) << inner.substr(0, 200);
    EXPECT_TRUE(parsePropertyList(plist(nested(512))));
}
// clang-format on

TEST(XmlPropertyList, RefusesEntitiesAndEverythingElseInAnInternalSubset) {
    std::string bomb = "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\">";
    for (char name = 'b'; name < 'z'; ++name)
        bomb += "<!ENTITY "s + name + " \"" + repeated("&"s + static_cast<char>(name - 1) + ";", 10) + "\">";
    EXPECT_FALSE(parsePropertyList(bomb + "]>" + plist("<string>&y;</string>")));
    for (const char* declaration : {"<!ENTITY a 'b'>", "<!ENTITY % a 'b'>", "<!ENTITY a SYSTEM 'file:///etc/passwd'>",
                                    "<!ATTLIST true a CDATA 'b'>"})
        EXPECT_FALSE(parsePropertyList("<!DOCTYPE plist ["s + declaration + "]>" + plist("<true/>"))) << declaration;
}

TEST(XmlPropertyList, TakesEveryDocumentTypeLineInUse) {
    const auto declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"s;
    const auto glued =
        "<!DOCTYPE plist PUBLIC \"-//Vexlor//DTD PLIST 1.0//ENhttp://www.vexlor.com/DTDs/PropertyList-1.0.dtd\">"s;
    const auto body = plist("<string>" + std::string("&lt;!DOCTYPE") + "</string>");
    for (const auto& line :
         {""s, glued, glued + "\n", "<!DOCTYPE plist>"s, "<!DOCTYPE plist SYSTEM \"x.dtd\">"s,
          "<!DOCTYPE plist PUBLIC \"-//Vexlor//DTD PLIST 1.0//EN\" \"http://nowhere.invalid/x.dtd\">"s}) {
        EXPECT_EQ(text(parsePropertyList(declaration + line + body)), "<!DOCTYPE") << line;
        EXPECT_EQ(text(parsePropertyList(line + body)), "<!DOCTYPE") << line;
    }
    EXPECT_EQ(text(parsePropertyList(plist("<string><![CDATA[" + glued + "]]></string>"))), glued);
}

TEST(XmlPropertyList, ReadsOtherEncodingsAsUtf8) {
    EXPECT_EQ(text(parsePropertyList("\xef\xbb\xbf" + plist("<string>\xc3\xa9</string>"))), "\xc3\xa9");
    const auto latin = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + plist("<string>\xe9</string>");
    EXPECT_EQ(text(parsePropertyList(latin)), "\xc3\xa9");
}

// Python writes only one form of each scalar, and no wrong one.
TEST(XmlPropertyList, ReadsScalarsInTheirWholeRangeAndNotBeyond) {
    const auto read = [](const std::string& kind, const std::string& content) {
        return parsePropertyList(plist("<" + kind + ">" + content + "</" + kind + ">"));
    };
    const std::pair<const char*, std::int64_t> integers[] = {
        {" +7\n", 7}, {"-0", 0}, {"0XfF", 255}, {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()}};
    for (const auto& [digits, number] : integers) EXPECT_EQ(*read("integer", digits)->as<std::int64_t>(), number);
    EXPECT_EQ(*read("integer", "0x8000000000000000")->as<std::uint64_t>(), std::uint64_t{1} << 63);
    EXPECT_EQ(*read("real", "+1.5e3 ")->as<double>(), 1500);
    EXPECT_EQ(read("date", "2000-02-29T23:59:59Z")->as<PropertyListDate>()->secondsSince2001, -307 * 86400 + 86399);
    const auto data = read("data", " Zm9v\n\tYmFyZg== ");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->as<PropertyListData>()->size(), 7U);
    const std::pair<const char*, std::vector<const char*>> refused[] = {
        {"integer",
         {"", "-", "+-1", "1x", "0x", "0x-1", "-0x1", "1 2", "1.0", "18446744073709551616", "-9223372036854775809",
          "0x10000000000000000", "\xd9\xa1"}},
        {"real", {"", "1,5", "1e", "0x1p3", "1.5 x", "+-1", "1e999"}},
        {"date",
         {"", "2001-01-01", "2001-01-01T00:00:00", "2001-02-29T00:00:00Z", "2001-13-01T00:00:00Z",
          "2001-01-01T24:00:00Z", "2001-01-01T00:00:60Z", "0000-01-01T00:00:00Z", "2001-1-01T00:00:00Z",
          "+001-01-01T00:00:00Z", "2001-01-01T00:00:00ZZ"}},
        {"data", {"Z", "Zg", "Zg=", "Z===", "====", "Zm8==", "Zg==Zg==", "Zm9v=", "Z-_=", "Z=g="}}};
    for (const auto& [kind, contents] : refused)
        for (const char* content : contents) EXPECT_FALSE(read(kind, content)) << kind << ' ' << content;
}

TEST(XmlPropertyList, WritesWhatItReadsBack) {
    PropertyListDictionary root;
    root["<&>\"' \r\n\t"] = {"caf\xc3\xa9 \r\n]]>"s};
    root["numbers"] = {PropertyListArray{{std::int64_t{-5}}, {~std::uint64_t{0}}, {0.1}, {true}, {false}}};
    root["data"] = {PropertyListData{std::byte{0}, std::byte{255}, std::byte{7}, std::byte{8}}};
    root["empty"] = {PropertyListDictionary{{"", {PropertyListArray{}}}}};
    root["date"] = {PropertyListDate{-86400.0 * 307}};
    const auto written = writeXmlPropertyList({root});
    const auto again = parsePropertyList(written);
    ASSERT_TRUE(again) << written;
    EXPECT_EQ(writeXmlPropertyList(*again), written);
    EXPECT_EQ(text(*findValue(*again->as<PropertyListDictionary>(), "<&>\"' \r\n\t")), "caf\xc3\xa9 \r\n]]>");
    EXPECT_NE(written.find("<date>2000-02-29T00:00:00Z</date>"), std::string::npos);
}

TEST(XmlPropertyList, WritesHostileTextAndDatesAsADocumentThatCanBeRead) {
    const auto hostile = "a\0\x1b[2J\xff\xc3 b\xed\xa0\x80\xef\xbf\xbf\xf4\x90\x80\x80\xe2\x82"s;
    EXPECT_EQ(text(parsePropertyList(writeXmlPropertyList({hostile}))), "a[2J b");
    for (const double when : {std::nan(""), std::numeric_limits<double>::infinity(), -1e300, 1e300, 0.5, -0.5})
        EXPECT_TRUE(parsePropertyList(writeXmlPropertyList({PropertyListDate{when}}))) << when;
}

TEST(BinaryPropertyList, ReadsWhatPythonDoesNotWrite) {
    EXPECT_EQ(*object("\x14" + repeated("\xff", 16))->as<std::int64_t>(), -1);
    EXPECT_EQ(*object("\x22\x3f\xc0\x00\x00"s)->as<double>(), 1.5);
    const auto twice = parsePropertyList(Binary{{"\xd2\x01\x01\x02\x03", "\x51k", "\x08", "\x09"}}.bytes());
    ASSERT_TRUE(twice);
    EXPECT_TRUE(*findValueAs<bool>(*twice->as<PropertyListDictionary>(), "k")) << "the last of two equal keys holds";
}

// clang-format off
TEST(BinaryPropertyList, RefusesBrokenObjects) {
    for (const auto& each : {
             "\x00"s, "\x0f"s, "\x07"s, "\x15" + repeated("0", 32), "\x14\x01" + repeated("0", 15), "\x21\x3f\xc0"s,
             "\x24"s, "\x33\x7f\xf8\0\0\0\0\0\0"s, "\x33\x7f\xf0\0\0\0\0\0\0"s, "\x33\x7e\x37\xe4\x3c\x88\0\x75\x9c"s,
             "\x32\x3f\xc0\0\0"s, "\x51\x80"s, "\x61\xd8\x3d"s, "\x61\xde\0"s, "\x62\xd8\x3d\0\x61"s,
             "\x62\xd8\x3d\xd8\x3d"s, "\x71x"s, "\x88" + repeated("0", 9), "\xb0"s, "\xc0"s, "\xf0"s, "\x5f"s,
             "\x5f\x14" + repeated("\0"s, 16), "\x5f\x20\x01x"s, "\x5f\x13" + bigEndian(~std::uint64_t{0}, 8),
             "\x6f\x13" + bigEndian(std::uint64_t{1} << 63, 8), "\xaf\x13" + bigEndian(std::uint64_t{1} << 61, 8),
             "\xdf\x13" + bigEndian(std::uint64_t{1} << 63, 8), "\x4f\x12\x7f\xff\xff\xff"s, "\xa1\0"s, "\xa1\x01"s,
             "\xa1"s, "\xd1\0\0"s})
        EXPECT_FALSE(object(each)) << testing::PrintToString(each);
    EXPECT_FALSE(parsePropertyList(Binary{{"\xd1\x01\x01", "\x10\x05"}}.bytes())) << "a key that is no text";
}
// clang-format on

TEST(BinaryPropertyList, RefusesABrokenFrame) {
    const Binary good{{"\xa2\x01\x01", "\x51x"}};
    ASSERT_TRUE(parsePropertyList(good.bytes()));
    const auto refused = [&](auto damage) {
        auto damaged = good;
        damage(damaged);
        return !parsePropertyList(damaged.bytes());
    };
    constexpr auto top = std::uint64_t{1} << 63;
    for (const auto wrong :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{3}, top, ~std::uint64_t{0}, top >> 1, top / 2 + 2}) {
        EXPECT_TRUE(refused([=](Binary& it) { it.count = wrong; })) << wrong;
        EXPECT_TRUE(refused([=](Binary& it) { it.tableOffset = wrong; })) << wrong;
        EXPECT_TRUE(refused([=](Binary& it) { it.root = std::max<std::uint64_t>(wrong, 2); })) << wrong;
    }
    for (const auto wrong : {0U, 7U, 13U, 1000U, ~0U})
        EXPECT_TRUE(refused([=](Binary& it) { it.firstOffset = wrong; })) << wrong;
    for (const int width : {0, 9}) EXPECT_TRUE(refused([=](Binary& it) { it.offsetWidth = width; })) << width;
    for (const int width : {0, 255}) EXPECT_TRUE(refused([=](Binary& it) { it.referenceWidth = width; })) << width;
    EXPECT_FALSE(parsePropertyList(good.bytes() + "x"));
    EXPECT_FALSE(parsePropertyList(good.bytes() + good.bytes()));
}

TEST(BinaryPropertyList, RefusesCyclesDepthAndGrowthQuickly) {
    EXPECT_FALSE(parsePropertyList(Binary{{"\xa1\x01", "\xa1\x02", "\xa1\x00"s}}.bytes()));
    const auto chain = [](std::uint64_t length, int references) {
        Binary nest;
        nest.referenceWidth = 4;
        for (std::uint64_t each = 0; each < length; ++each) {
            nest.objects.push_back(std::string(1, static_cast<char>(0xa0 + references)));
            while (nest.objects.back().size() < 1 + 4U * static_cast<unsigned>(references))
                nest.objects.back() += bigEndian(each + 1, 4);
        }
        nest.objects.emplace_back("\x09");
        return nest.bytes();
    };
    EXPECT_TRUE(parsePropertyList(chain(512, 1)));
    EXPECT_FALSE(parsePropertyList(chain(513, 1)));
    EXPECT_FALSE(parsePropertyList(chain(100000, 1)));
    EXPECT_TRUE(parsePropertyList(chain(10, 2)));
    EXPECT_FALSE(parsePropertyList(chain(60, 2))) << "2^60 values out of 61 objects";

    // One text of a megabyte, listed a hundred thousand times.
    const auto large = "\x5f\x12" + bigEndian(1 << 20, 4) + repeated("x", 1 << 20);
    const auto list = "\xaf\x12" + bigEndian(100000, 4) + repeated("\x01", 100000);
    EXPECT_FALSE(parsePropertyList(Binary{{list, large}}.bytes()));
}

TEST(PropertyList, ADocumentCutAnywhereIsNone) {
    const auto xml = plist("<dict><key>k</key><array><data>Zg==</data><string>x</string></array></dict>");
    const auto binary = Binary{{"\xd1\x01\x02", "\x51k", "\xa2\x03\x04", "\x41x", "\x61\x00x"s}}.bytes();
    for (const auto& whole : {xml, binary}) {
        ASSERT_TRUE(parsePropertyList(whole));
        for (std::size_t length = 0; length < whole.size(); ++length)
            EXPECT_FALSE(parsePropertyList(std::string(whole, 0, length))) << length;
    }
    EXPECT_TRUE(parsePropertyListText(xml));
    EXPECT_FALSE(parsePropertyListText(plist("<array/>")));
}

TEST(PropertyList, TextOutsideAsciiDoesNotFitTheBuffer) {
    const auto converted = [](PropertyListValue value) { return textFromPlatformString(&value); };
    EXPECT_EQ(converted({"plain \0text"s}), "plain \0text"s);
    for (const char* each : {"\xc3\xa9", "abc\xe2\x82\xac", "\xf0\x9f\x98\x80"})
        EXPECT_EQ(converted({std::string(each)}), "");
    EXPECT_EQ(converted({true}), "");
    EXPECT_EQ(textFromPlatformString(nullptr), "");
}

TEST(InfoDictionary, AProgramWithoutTheSectionHasNone) { EXPECT_FALSE(lookupOwnInfoValue("CaptureSpec")); }

class PropertyListFile : public testing::Test {
protected:
    void SetUp() override { write(plist("<dict/>")); }
    void write(const std::string& content) { std::ofstream(file_ = folder_ / "file") << content; }

    TemporaryFolder temporary_;
    fs::path folder_ = temporary_.path, file_;
};

TEST_F(PropertyListFile, IsReadThroughALinkButNeverFromSomethingElse) {
    fs::create_symlink(file_, folder_ / "link");
    EXPECT_TRUE(readPropertyListFile(file_));
    EXPECT_TRUE(readPropertyListFile(folder_ / "link"));
    ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0600), 0);
    for (const auto& other : {folder_ / "fifo", folder_ / "absent", folder_, fs::path("/dev/zero"), fs::path()})
        EXPECT_FALSE(readPropertyListFile(other)) << other;
}

TEST_F(PropertyListFile, IsReadUpToSixteenMegabytes) {
    const auto padded = [&](std::size_t size) {
        const auto document = plist("<dict/>");
        write(document + repeated(" ", size - document.size()));
        return readPropertyListFile(file_);
    };
    EXPECT_TRUE(padded(16 << 20));
    EXPECT_FALSE(padded((16 << 20) + 1));
    fs::resize_file(file_, std::uintmax_t{1} << 40);
    EXPECT_FALSE(readPropertyListFile(file_));
}

}  // namespace
