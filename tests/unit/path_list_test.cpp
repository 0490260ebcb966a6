#include "qvx/write/path_list.h"

#include <gtest/gtest.h>

#include "qvx/write/stored_contents.h"

using namespace tarnwick::qvx;
using namespace std::literals;

namespace {

// Now and then a path that shares nothing with the one before, or is the beginning of it.
PathList::Entry entryOf(std::uint64_t number) {
    std::string path = number % 97 == 0 ? "/" : "/var/log/" + std::to_string(number / 10);
    if (number % 10 != 0) path += "/report-" + std::to_string(number * 7919 % 100000);
    const std::uint64_t folder = number % 7 > 2 ? number * 987654321 % 1009 + 1 : 0;
    return {path, EntryType(1 + number % 3), number % 5 ? 66305U : 7U, number * 123456789 % 10007, folder, folder};
}

TEST(PathList, ReturnsEveryEntryAsItWasAppended) {
    PathList list;
    for (std::uint64_t i = 0; i < 20000; ++i) {
        PathList one;
        one.append(entryOf(i));
        list.append(one);
    }
    PathList::Cursor cursor(list);
    for (std::uint64_t i = 0; i < 20000; ++i) {
        const auto* entry = cursor.next();
        ASSERT_TRUE(entry && *entry == entryOf(i)) << i;
        EXPECT_TRUE(i % 501 != 0 || list.pathOf(i) == entry->path) << i;
    }
    EXPECT_FALSE(cursor.next() || cursor.next()) << "the end, twice";
}

// "/proc/self" is a link, so only the kernel knows what is above it.
TEST(PathList, ListsThePathThatTheArchiveWillContain) {
    const char* const rows[][3] = {{"/proc", "sys//./fs/", "/proc/sys/fs"},
                                   {"/", ".", "/"},
                                   {"/proc", "/proc/self/.", "/proc/self"},
                                   {"/proc/self", "..", "/proc"},
                                   {"/", "proc/self/../version", "/proc/version"}};
    for (const auto& [directory, path, listed] : rows) {
        const auto entry = lookUp(directory, path), guarded = lookUpGuarded(directory, path);
        EXPECT_TRUE(entry && entry->path == listed && guarded && guarded->path == listed) << directory << ' ' << path;
    }
    const std::string longest(4095, 'x');
    EXPECT_EQ(normalPath("/", longest), "/" + longest);
    for (const auto& path : {""s, "proc\0"s, "nowhere/.."s, "nowhere"s, longest + 'x', "dev/null"s})
        EXPECT_FALSE(lookUp("/", path) || lookUpGuarded("/", path)) << path;
}

TEST(StoredContents, FindsEveryFileThatIsListedTwice) {
    constexpr std::uint64_t files = 5000, foreign = std::uint64_t{1} << 40 | 1;
    PathList list;
    for (std::uint64_t i = 0; i < 2 * files; ++i) list.append({"/f", EntryType::file, 1, i % files + 1, 0, 0});
    for (int i = 0; i < 2; ++i) list.append({"/f", EntryType::file, foreign, 1});
    StoredContents stored(list);
    for (std::uint64_t i = 1; i <= files; ++i) stored.add(1, i, i);
    stored.add(foreign, 1, 77);
    for (std::uint64_t i = 1; i <= files; ++i)
        EXPECT_TRUE(stored.find(1, i) == i && !stored.find(2, i)) << i << ", or on another device";
    EXPECT_FALSE(stored.find(foreign, 1)) << "a device that does not fit";
}

}  // namespace
