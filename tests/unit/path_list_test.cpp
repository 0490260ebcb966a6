#include "qvx/write/path_list.h"

#include <gtest/gtest.h>

#include "qvx/write/stored_contents.h"

using tarnwick::qvx::EntryType;
using tarnwick::qvx::normalPath;
using tarnwick::qvx::PathList;
using tarnwick::qvx::StoredContents;

namespace {

// Now and then a path that shares nothing, or is its forerunner's beginning.
PathList::Entry entryOf(std::uint64_t number) {
    std::string path = number % 97 == 0 ? "/" : "/var/log/" + std::to_string(number / 10);
    if (number % 10 != 0) path += "/report-" + std::to_string(number * 7919 % 100000);
    const bool guarded = number % 7 > 2;
    return {path,
            number % 3 ? EntryType::file : EntryType::link,
            number % 5 ? 66305U : 7U,
            number * 123456789 % 10007,
            guarded ? 66306U : 0U,
            guarded ? number * 987654321 % 1009 + 1 : 0U};
}

TEST(PathList, GivesBackWhatWasPutInByWalkAndByNumber) {
    PathList list;
    for (std::uint64_t i = 0; i < 20000; ++i) {
        PathList one;
        one.append(entryOf(i));
        list.append(one);
    }
    PathList::Cursor cursor(list);
    for (std::uint64_t i = 0; i < 20000; ++i) {
        const auto* entry = cursor.next();
        const auto [path, type, device, inode, folderDevice, folderInode] = entryOf(i);
        ASSERT_TRUE(entry && entry->path == path && entry->type == type) << i;
        EXPECT_TRUE(entry->device == device && entry->inode == inode) << i;
        EXPECT_TRUE(entry->folderDevice == folderDevice && entry->folderInode == folderInode) << i;
        EXPECT_TRUE(i % 501 != 0 || list.pathOf(i) == path) << i;
    }
    EXPECT_EQ(cursor.next(), nullptr);
}

TEST(PathList, TakesPathsAsTheyWillStandInTheArchive) {
    EXPECT_EQ(normalPath("/", "var//./log/"), "/var/log");
    EXPECT_EQ(normalPath("/srv", "x/..."), "/srv/x/...");
    EXPECT_EQ(normalPath("/", "."), "/");
    for (const auto& refused :
         {std::string("/var/../etc"), std::string(), std::string("a\0b", 3), std::string(5000, 'x')})
        EXPECT_FALSE(normalPath("/", refused)) << refused;
}

TEST(StoredContents, KnowsEveryFileThatIsListedTwice) {
    constexpr std::uint64_t files = 5000, foreign = std::uint64_t{1} << 40 | 1;
    PathList list;
    for (std::uint64_t i = 0; i < 2 * files; ++i) list.append({"/f", EntryType::file, 1, i % files + 1, 0, 0});
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
