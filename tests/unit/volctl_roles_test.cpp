#include "volctl/roles.h"

#include <gtest/gtest.h>

#include "volctl/visible_text.h"

using namespace tarnwick;

namespace {

const std::string espType = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

TEST(Roles, AreTheFirstThatMatches) {
    // Settings of another type than theirs leave the default.
    const PropertyListDictionary roles{{"AB-CD", {std::string("ByUuid")}},
                                       {"part-1", {std::string("ByPartition")}},
                                       {"/dev/sda7", {std::string("ByDevice")}},
                                       {"name", {std::string("ByLabel")}},
                                       {"other", {true}}};
    const auto settings =
        readVolumeSettings({{"Roles", {roles}}, {"PrebootDirectory", {true}}, {"IncludeRemovable", {std::int64_t{1}}}});
    EXPECT_EQ(settings.prebootDirectory, "/boot");
    EXPECT_FALSE(settings.includeRemovable);
    const std::pair<RoleEvidence, const char*> cases[] = {
        {{"ab-cd", "", {}, "", espType, {"/"}}, "ByUuid"},
        {{"", "PART-1", {}, "name", "", {}}, "ByPartition"},
        {{"", "", {"dm-0", "sda7"}, "AB-CD", "", {}}, "ByDevice"},
        {{"", "", {}, "name", espType, {}}, "ByLabel"},
        {{"", "", {"sda1"}, "Name", espType, {"/"}}, "System"},
        {{"", "", {"sda1"}, "other", "0x83", {"/mnt", "/var/log"}}, "Data"},
    };
    for (const auto& [evidence, role] : cases) EXPECT_EQ(roleOf(evidence, settings), role);
    for (const auto* path : {"/", "/home", "/home/me", "/srv", "/var/lib"})
        EXPECT_EQ(roleOf({"", "", {}, "", "", {path}}, {}), "Data") << path;
    for (const auto* path : {"/homes", "/boot", "/mnt/home", "/usr"})
        EXPECT_EQ(roleOf({"", "", {}, "", "", {path}}, {}), "Other") << path;
}

TEST(VisibleText, LetsNoControlOrForeignByteThrough) {
    const std::pair<const char*, const char*> cases[] = {{"\xc3\xa9\xf0\x9f\x92\xbe", "\xc3\xa9\xf0\x9f\x92\xbe"},
                                                         {"\x1b[2J\n\x7f", "\\x1b[2J\\x0a\\x7f"},
                                                         {"\xc2\x9b[0m\xe2\x80\xae", "\\xc2\\x9b[0m\\xe2\\x80\\xae"},
                                                         {"\xc0\xaf \xed\xa0\x80", "\\xc0\\xaf \\xed\\xa0\\x80"},
                                                         {"\xe2\x82", "\\xe2\\x82"},
                                                         {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}};
    for (const auto& [raw, visible] : cases) EXPECT_EQ(visibleText(raw), visible);
    EXPECT_TRUE(isPlainName("/mnt/A b_1.x-y:@+,=~"));
    for (const auto* name : {"$(x)", "a\"b", "a'b", "a\\b", "a;b", "a\nb", "a\tb", "\xc3\xa9", "a*", "a%b", "a!b"})
        EXPECT_FALSE(isPlainName(name)) << name;
}

}  // namespace
