#include "qvx/write/path_list.h"

#include <gtest/gtest.h>

#include "qvx/write/stored_contents.h"

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

}  // namespace
