// What Python's reader and writer, to which property_list_cross_check.py holds ours, do not show: hostile documents.
#include "platform/property_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>

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
        return out + table + std::string(6, '\0') + static_cast<char>(offsetWidth) + static_cast<char>(referenceWidth) +
               bigEndian(count.value_or(objects.size()), 8) + bigEndian(root, 8) +
               bigEndian(tableOffset.value_or(tableStart), 8);
    }
};

// The root's text, or its form as XML where it is another value; "refused" for a document that is refused.
std::string read(const std::string& document) {
    const auto value = parsePropertyList(document);
    if (!value) return "refused";
    if (const auto* text = value->as<std::string>()) return *text;
    const auto written = writeXmlPropertyList(*value);
    const auto start = written.find("<plist version=\"1.0\">\n") + 22;
    return written.substr(start, written.size() - start - 10);
}

// clang-format off
TEST(XmlPropertyList, RefusesWhatIsNotOnePropertyList) {
    const auto nested = [](std::size_t depth) { return repeated("<array>", depth) + repeated("</array>", depth); };
    std::string bomb = "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\">";
    for (char name = 'b'; name < 'z'; ++name)
        bomb += "<!ENTITY "s + name + " \"" + repeated("&"s + static_cast<char>(name - 1) + ";", 10) + "\">";
    for (const auto& document :
         {""s, "<"s, "<plist/>"s, "<true/>"s, "<plist><true></false></plist>"s,
          "<plist><true/></plist><plist><true/></plist>"s, bomb + "]>" + plist("<string>&y;</string>"),
          "<!DOCTYPE plist SYSTEM 'file:///etc/passwd'><plist><string>&unknown;</string></plist>"s,
          "<?xml version='1.0' encoding='no-such'?><plist><true/></plist>"s})
        EXPECT_EQ(read(document), "refused") << document;
    for (const auto& inner : {""s, "<true/><true/>"s, "<plist><true/></plist>"s, "<bool/>"s, "<key>k</key>"s,
                              "text<true/>"s, "<true>x</true>"s, "<string>a<b/></string>"s,
                              "<dict><key>k</key></dict>"s, "<dict><true/></dict>"s, "<array><key>k</key></array>"s,
                              "<dict><key>k</key><key>l</key><true/></dict>"s,
                              "<dict><key>k</key><true/><true/></dict>"s, "<string>\xff</string>"s,
                              "<string>&#0;</string>"s, nested(513), nested(100000), repeated("<array>", 100000)})
        EXPECT_EQ(read(plist(inner)), "refused") << inner.substr(0, 200);
    for (const char* declaration : {"<!ENTITY a 'b'>", "<!ENTITY % a 'b'>", "<!ENTITY a SYSTEM 'file:///etc/passwd'>",
                                    "<!ATTLIST true a CDATA 'b'>"})
        EXPECT_EQ(read("<!DOCTYPE plist ["s + declaration + "]>" + plist("<true/>")), "refused") << declaration;
    EXPECT_NE(read(plist(nested(512))), "refused");
}

TEST(XmlPropertyList, TakesEveryDocumentTypeLineAndEncodingInUse) {
    const auto glued =
        "<!DOCTYPE plist PUBLIC \"-//Vexlor//DTD PLIST 1.0//ENhttp://www.vexlor.com/DTDs/PropertyList-1.0.dtd\">"s;
    for (const auto& line : {""s, glued, glued + "\n", "<!DOCTYPE plist>"s,
                             "<!DOCTYPE plist PUBLIC \"-//V//DTD PLIST 1.0//EN\" \"http://nowhere.invalid/x.dtd\">"s})
        for (const auto* declaration : {"", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"})
            EXPECT_EQ(read(declaration + line + plist("<string>&lt;!DOCTYPE</string>")), "<!DOCTYPE") << line;
    EXPECT_EQ(read(plist("<string><![CDATA[" + glued + "]]></string>")), glued);
    EXPECT_EQ(read("\xef\xbb\xbf" + plist("<string>\xc3\xa9</string>")), "\xc3\xa9");
    EXPECT_EQ(read("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + plist("<string>\xe9</string>")), "\xc3\xa9");
}

// Python writes only one form of each scalar, and no wrong one.
TEST(XmlPropertyList, ReadsScalarsInTheirWholeRangeAndNotBeyond) {
    const auto element = [](const std::string& kind, const std::string& content) {
        return "<" + kind + ">" + content + "</" + kind + ">";
    };
    const char* good[][3] = {{"integer", " +7\n", "7"},
                             {"integer", "-0", "0"},
                             {"integer", "0XfF", "255"},
                             {"integer", "0x8000000000000000", "9223372036854775808"},
                             {"integer", "-9223372036854775808", "-9223372036854775808"},
                             {"real", "+1.5e3 ", "1500"},
                             {"data", " Zm9v\n\tYmFyZg== ", "Zm9vYmFyZg=="}};
    for (const auto& [kind, content, same] : good)
        EXPECT_EQ(read(plist(element(kind, content))), element(kind, same)) << content;
    const std::pair<const char*, std::vector<const char*>> refused[] = {
        {"integer", {"", "-", "+-1", "1x", "0x", "0x-1", "-0x1", "1 2", "1.0", "18446744073709551616",
                     "-9223372036854775809", "0x10000000000000000", "\xd9\xa1"}},
        {"real", {"", "1,5", "1e", "0x1p3", "1.5 x", "+-1", "1e999"}},
        {"date", {"", "2001-01-01", "2001-01-01T00:00:00", "2001-02-29T00:00:00Z", "2001-13-01T00:00:00Z",
                  "2001-01-01T24:00:00Z", "2001-01-01T00:00:60Z", "0000-01-01T00:00:00Z", "2001-1-01T00:00:00Z",
                  "+001-01-01T00:00:00Z", "2001-01-01T00:00:00ZZ"}},
        {"data", {"Z", "Zg", "Zg=", "Z===", "====", "Zm8==", "Zg==Zg==", "Zm9v=", "Z-_=", "Z=g="}}};
    for (const auto& [kind, contents] : refused)
        for (const char* content : contents)
            EXPECT_EQ(read(plist(element(kind, content))), "refused") << kind << ' ' << content;
}
// clang-format on

TEST(XmlPropertyList, WritesHostileTextAndDatesAsADocumentThatCanBeRead) {
    const auto hostile = "a\0\x1b[2J\xff\xc3 b\xed\xa0\x80\xef\xbf\xbf\xf4\x90\x80\x80\xe2\x82"s;
    EXPECT_EQ(read(writeXmlPropertyList({hostile})), "a[2J b");
    for (const double when : {std::nan(""), std::numeric_limits<double>::infinity(), -1e300, 1e300, 0.5, -0.5})
        EXPECT_NE(read(writeXmlPropertyList({PropertyListDate{when}})), "refused") << when;
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
        EXPECT_EQ(read(Binary{{each}}.bytes()), "refused") << testing::PrintToString(each);
    EXPECT_EQ(read(Binary{{"\xd1\x01\x01", "\x10\x05"}}.bytes()), "refused") << "a key that is no text";
    EXPECT_EQ(read(Binary{{"\x14" + repeated("\xff", 16)}}.bytes()), "<integer>-1</integer>");
    EXPECT_EQ(read(Binary{{"\x22\x3f\xc0\0\0"s}}.bytes()), "<real>1.5</real>");
}
// clang-format on

TEST(BinaryPropertyList, RefusesABrokenFrame) {
    const Binary good{{"\xa2\x01\x01", "\x51x"}};
    ASSERT_NE(read(good.bytes()), "refused");
    const auto expectRefused = [&](std::uint64_t wrong, auto damage) {
        auto damaged = good;
        damage(damaged);
        EXPECT_EQ(read(damaged.bytes()), "refused") << wrong;
    };
    constexpr auto top = std::uint64_t{1} << 63;
    for (const std::uint64_t wrong : std::vector<std::uint64_t>{0, 1, 3, top, ~top, ~0ULL, top >> 1, top / 2 + 2}) {
        expectRefused(wrong, [=](Binary& it) { it.count = wrong; });
        expectRefused(wrong, [=](Binary& it) { it.tableOffset = wrong; });
        expectRefused(wrong, [=](Binary& it) { it.root = std::max<std::uint64_t>(wrong, 2); });
    }
    for (const auto wrong : {0U, 7U, 13U, 1000U, ~0U})
        expectRefused(wrong, [=](Binary& it) { it.firstOffset = wrong; });
    for (const int wrong : {0, 9}) expectRefused(0, [=](Binary& it) { it.offsetWidth = wrong; });
    for (const int wrong : {0, 255}) expectRefused(0, [=](Binary& it) { it.referenceWidth = wrong; });
    EXPECT_EQ(read(good.bytes() + "x"), "refused");
    EXPECT_EQ(read(good.bytes() + good.bytes()), "refused");
}

TEST(BinaryPropertyList, RefusesCyclesDepthAndGrowthQuickly) {
    const auto chain = [](std::uint64_t length, std::size_t references) {
        Binary nest;
        nest.referenceWidth = 4;
        for (std::uint64_t each = 1; each <= length; ++each)
            nest.objects.push_back(static_cast<char>(0xa0 + references) + repeated(bigEndian(each, 4), references));
        nest.objects.emplace_back("\x09");
        return parsePropertyList(nest.bytes()).has_value();
    };
    EXPECT_TRUE(chain(512, 1));
    EXPECT_FALSE(chain(513, 1));
    EXPECT_FALSE(chain(100000, 1));
    EXPECT_TRUE(chain(10, 2));
    EXPECT_FALSE(chain(60, 2)) << "2^60 values out of 61 objects";
    EXPECT_EQ(read(Binary{{"\xa1\x01", "\xa1\x02", "\xa1\x00"s}}.bytes()), "refused");

    // One text of a megabyte, listed a hundred thousand times.
    const auto large = "\x5f\x12" + bigEndian(1 << 20, 4) + repeated("x", 1 << 20);
    const auto list = "\xaf\x12" + bigEndian(100000, 4) + repeated("\x01", 100000);
    EXPECT_EQ(read(Binary{{list, large}}.bytes()), "refused");
}

TEST(PropertyListFile, IsAFileOfSixteenMegabytesAtMost) {
    const TemporaryFolder folder;
    const auto file = folder.path / "file", link = folder.path / "link", fifo = folder.path / "fifo";
    fs::create_symlink(file, link);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto readable = [&](const std::string& document, std::size_t size) {
        std::ofstream(file) << document << repeated(" ", size - document.size());
        return readPropertyListFile(link).has_value();
    };
    EXPECT_TRUE(readable(plist("<dict/>"), 16 << 20));
    EXPECT_FALSE(readable(plist("<dict/>"), (16 << 20) + 1));
    EXPECT_FALSE(readable(plist("<array/>"), 100));
    std::ofstream(folder.path / "\xff") << plist("<dict/>");
    EXPECT_FALSE(readPropertyListFile(folder.path / "\xff"));
    fs::resize_file(file, std::uintmax_t{1} << 40);
    for (const auto& other : {file, fifo, folder.path / "absent", folder.path, fs::path("/dev/zero"), fs::path()})
        EXPECT_FALSE(readPropertyListFile(other)) << other;
}

}  // namespace
