// Documents themselves are for property_list_cross_check.py.
#include "plist/property_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "plist/xml_property_list.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

TEST(PropertyList, WritesHostileTextAsADocumentThatCanBeRead) {
    const std::string hostile("a\0\x1b[2J\xff\xc3 b\xed\xa0\x80\xef\xbf\xbf\xf4\x90\x80\x80\xe2\x82", 22);
    const auto again = parsePropertyList(writeXmlPropertyList({hostile}));
    ASSERT_TRUE(again && again->as<std::string>());
    EXPECT_EQ(*again->as<std::string>(), "a[2J b");
}

TEST(PropertyListFile, IsAFileOfSixteenMegabytesAtMost) {
    const TemporaryFolder folder;
    const auto fifo = folder.path / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto readable = [&](std::string document, std::size_t size, const char* name = "file") {
        document.resize(size, ' ');
        return readPropertyListFile(folder.write(name, document)).has_value();
    };
    EXPECT_TRUE(readable("<plist><dict/></plist>", 16 << 20));
    EXPECT_FALSE(readable("<plist><dict/></plist>", (16 << 20) + 1));
    EXPECT_FALSE(readable("<plist><array/></plist>", 100));
    EXPECT_FALSE(readable("<plist><dict/></plist>", 100, "\xff"));
    for (const auto& other : {fifo, folder.path / "absent", folder.path, fs::path("/dev/zero")})
        EXPECT_FALSE(readPropertyListFile(other)) << other;
}

}  // namespace
