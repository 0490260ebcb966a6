#include "volctl/roles.h"

#include <gtest/gtest.h>

#include "volctl/listing.h"
#include "volctl/visible_text.h"

using namespace tarnwick;

namespace {

const std::string espType = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

TEST(Roles, AreTheFirstThatMatches) {
    VolumeSettings settings;
    settings.roles = {{"AB-CD", "ByUuid"}, {"part-1", "ByPartition"}, {"/dev/sda7", "ByDevice"}, {"name", "ByLabel"}};
    EXPECT_EQ(roleOf({"ab-cd", "", {}, "", espType, {"/"}}, settings), "ByUuid");
    EXPECT_EQ(roleOf({"", "PART-1", {}, "name", "", {}}, settings), "ByPartition");
    EXPECT_EQ(roleOf({"", "", {"dm-0", "sda7"}, "AB-CD", "", {}}, settings), "ByDevice");
    EXPECT_EQ(roleOf({"", "", {}, "name", espType, {}}, settings), "ByLabel");
    EXPECT_EQ(roleOf({"", "", {"sda1"}, "Name", espType, {"/"}}, settings), "System");
    EXPECT_EQ(roleOf({"", "", {"sda1"}, "", "0x83", {"/mnt", "/var/log"}}, settings), "Data");
}

TEST(Roles, FollowTheMountPoint) {
    for (const auto* path : {"/", "/home", "/home/me", "/srv", "/var/lib"})
        EXPECT_EQ(roleOf({"", "", {}, "", "", {path}}, {}), "Data") << path;
    for (const auto* path : {"/homes", "/boot", "/mnt/home", "/usr"})
        EXPECT_EQ(roleOf({"", "", {}, "", "", {path}}, {}), "Other") << path;
}

TEST(Roles, KeepTheDefaultsForSettingsOfAnotherType) {
    const PropertyListDictionary roles{{"a", {true}}, {"b", {std::string("Data")}}};
    const auto settings =
        readVolumeSettings({{"Roles", {roles}}, {"PrebootDirectory", {true}}, {"IncludeRemovable", {std::int64_t{1}}}});
    EXPECT_EQ(settings.roles, (std::map<std::string, std::string>{{"b", "Data"}}));
    EXPECT_EQ(settings.prebootDirectory, "/boot");
    EXPECT_FALSE(settings.includeRemovable);
}

TEST(VisibleText, LetsNoControlOrForeignByteThrough) {
    const std::pair<const char*, const char*> cases[] = {{"\xc3\xa9\xf0\x9f\x92\xbe", "\xc3\xa9\xf0\x9f\x92\xbe"},
                                                         {"\x1b[2J\n\x7f", "\\x1b[2J\\x0a\\x7f"},
                                                         {"\xc2\x9b"
                                                          "0m",
                                                          "\\xc2\\x9b0m"},
                                                         {"\xc0\xaf \xed\xa0\x80", "\\xc0\\xaf \\xed\\xa0\\x80"},
                                                         {"\xe2\x82", "\\xe2\\x82"},
                                                         {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}};
    for (const auto& [raw, visible] : cases) EXPECT_EQ(visibleText(raw), visible);
}

TEST(VisibleText, TellsPlainNames) {
    EXPECT_TRUE(isPlainName("/mnt/A b_1.x-y:@+,=~"));
    for (const auto* name : {"$(x)", "a\"b", "a'b", "a\\b", "a;b", "a\nb", "a\tb", "\xc3\xa9", "a*", "a%b", "a!b"})
        EXPECT_FALSE(isPlainName(name)) << name;
}

TEST(Listing, PadsByCharactersAndSaysSizes) {
    EXPECT_EQ(sizeText(0) + sizeText(1023) + sizeText(1536), "-1023 B1.5 KiB");
    EXPECT_EQ(sizeText(UINT64_MAX), "15.9 EiB");
    Volume plain;
    plain.name = "abc";
    auto accented = plain;
    accented.name =
        "\xc3\xa9"
        "bc";
    accented.leftOutBecause = "of a reason";
    const auto table = volumeTable({plain, accented});
    EXPECT_NE(table.find("abc   -"), std::string::npos) << table;
    EXPECT_NE(table.find("\xc3\xa9"
                         "bc   -"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("left out: of a reason\n"), std::string::npos) << table;
}

}  // namespace
