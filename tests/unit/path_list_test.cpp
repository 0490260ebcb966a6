#include "qvx/write/path_list.h"

#include <gtest/gtest.h>

#include "qvx/write/stored_contents.h"
#include "qvx/write/stored_order.h"

using namespace tarnwick::qvx;
using namespace std::literals;

namespace {

// "/proc/self" is a link, so only the kernel knows what is above it.
TEST(PathList, ListsThePathThatTheArchiveWillContain) {
    const char* const rows[][2] = {{"proc/sys//./fs/", "/proc/sys/fs"},
                                   {".", "/"},
                                   {"proc/self/.", "/proc/self"},
                                   {"proc/self/../version", "/proc/version"}};
    for (const auto& [path, listed] : rows)
        for (const auto& entry : {lookUp("/", path), lookUpGuarded("/", path)})
            EXPECT_TRUE(entry && entry->path == listed) << path;
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
    for (std::uint64_t i = 1; i <= files; ++i) stored.add(1, i, {i, i});
    stored.add(foreign, 1, {77, 0});
    for (std::uint64_t i = 1; i <= files; ++i)
        EXPECT_TRUE(stored.find(1, i)->number == i && !stored.find(2, i)) << i << ", or on another device";
    EXPECT_FALSE(stored.find(foreign, 1)) << "a device that does not fit";
}

std::vector<std::string> pathsOf(const PathList& list) {
    std::vector<std::string> paths;
    PathList::Cursor cursor(list);
    while (const auto* entry = cursor.next()) paths.push_back(entry->path);
    return paths;
}

TEST(StoredOrder, GathersSixteenPathsOfOneExtension) {
    PathList list;
    for (unsigned i = 0; i < StoredOrder::minKind; ++i) {
        const std::string number = std::to_string(i), letter(1, static_cast<char>('a' + i));
        list.append({"/d/" + letter + number + ".log", EntryType::file, 1, i});
        list.append({"/d" + number + "/report.txt" + number, EntryType::file, 1, i});
        list.append({"/d/" + number, EntryType::file, 1, i});
        list.append({"/d/" + number + ".conf", EntryType::file, 1, i});
        list.append({"/d/" + letter + ".gz", EntryType::file, 1, i});
        if (i > 0) list.append({"/d/" + letter + ".rare", EntryType::file, 1, i});
    }
    list.append({"/x.conf", EntryType::directory, 1, 1});
    PathList::Cursor cursor(list);
    StoredOrder order(cursor);
    const auto listed = pathsOf(list), stored = pathsOf(order.list());
    std::vector<std::string> expected[3], groups[3];  // no kind, and the two kinds in any order
    for (std::size_t i = 0; i < listed.size(); ++i)
        expected[listed[i].find("report") != std::string::npos ? 1
                 : listed[i].ends_with("log")                  ? 2
                                                               : 0]
            .push_back(listed[i]);
    std::size_t group = 0;
    for (std::size_t i = 0; i < stored.size(); ++i) {
        EXPECT_EQ(listed[order.place(i)], stored[i]);
        if (i > 0 && order.kind(i) != order.kind(i - 1)) ++group;
        ASSERT_LT(group, std::size(groups));
        groups[group].push_back(stored[i]);
    }
    if (groups[1] != expected[1]) std::swap(groups[1], groups[2]);
    for (std::size_t i = 0; i < std::size(groups); ++i) EXPECT_EQ(groups[i], expected[i]);
}

}  // namespace
