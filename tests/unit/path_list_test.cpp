#include "platform/archive/path_list.h"

#include <gtest/gtest.h>

#include "platform/archive/stored_contents.h"

using tarnwick::PathList;
using tarnwick::qvx::EntryType;
using tarnwick::qvx::normalPath;
using tarnwick::qvx::StoredContents;

namespace {

PathList::Entry entryOf(std::uint64_t number) {
    // Now and then a path that shares nothing, or is its forerunner's beginning.
    std::string path = number % 97 == 0 ? "/" : "/var/log/" + std::to_string(number / 10);
    if (number % 10 != 0) path += "/report-" + std::to_string(number * 7919 % 100000);
    return {path, number % 3 ? EntryType::file : EntryType::link, number % 5 ? 66305U : 7U,
            number * 123456789 % 1000003};
}

TEST(PathList, GivesBackWhatWasPutInByWalkAndByNumber) {
    constexpr std::uint64_t count = 20000;
    PathList list;
    for (std::uint64_t i = 0; i < count; ++i) {
        PathList one;
        one.append(entryOf(i));
        list.append(one);
    }
    PathList::Walk walk(list);
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto* entry = walk.next();
        const auto expected = entryOf(i);
        ASSERT_TRUE(entry && std::tie(entry->path, entry->type, entry->device, entry->inode) ==
                                 std::tie(expected.path, expected.type, expected.device, expected.inode))
            << i;
        EXPECT_TRUE((i % 501 != 0 && i != count - 1) || list.pathOf(i) == expected.path) << i;
    }
    EXPECT_EQ(walk.next(), nullptr);
}

TEST(PathList, TakesPathsAsTheyWillStandInTheArchive) {
    const std::tuple<const char*, std::string, const char*> cases[] = {{"/", "var//./log/", "/var/log"},
                                                                       {"/srv", "x", "/srv/x"},
                                                                       {"/srv", "/x", "/x"},
                                                                       {"/", ".", "/"},
                                                                       {"/", "...", "/..."}};
    for (const auto& [directory, path, normal] : cases) EXPECT_EQ(normalPath(directory, path), normal) << path;
    for (const auto& refused :
         {std::string("/var/../etc"), std::string(), std::string("a\0b", 3), std::string(5000, 'x')})
        EXPECT_FALSE(normalPath("/", refused)) << refused;
}

TEST(StoredContents, KnowsEveryFileThatIsListedTwice) {
    constexpr std::uint64_t files = 5000, foreign = std::uint64_t{1} << 40 | 1;
    PathList list;
    for (std::uint64_t i = 0; i < 2 * files; ++i) list.append({"/f", EntryType::file, 1, i % files + 1});
    StoredContents stored(list);
    for (std::uint64_t i = 1; i <= files; ++i) {
        EXPECT_FALSE(stored.find(1, i)) << i;
        stored.add(1, i, i);
    }
    for (std::uint64_t i = 1; i <= files; ++i)
        EXPECT_TRUE(stored.find(1, i) == i && !stored.find(2, i)) << i << ", or on another device";
    stored.add(foreign, 1, 77);
    EXPECT_FALSE(stored.find(foreign, 1)) << "a device that does not fit";
}

}  // namespace
