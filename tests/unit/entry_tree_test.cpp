// The tree that `qvx mount` shows.
#include "qvx/entry_tree.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace tarnwick::qvx;

namespace {

constexpr auto file = EntryType::file, directory = EntryType::directory, link = EntryType::link;

struct Tree : EntryTree {
    Tree& with(const std::string& path, EntryType type = file, std::uint16_t mode = 0644) {
        IndexEntry entry;
        entry.block = count;
        entry.type = type;
        entry.path = path;
        entry.mode = mode;
        entry.size = count;
        add(entry, count++);
        return *this;
    }

    // "NAME:NUMBER " for each file, "NAME:MODE{...} " for each directory.
    [[nodiscard]] std::string shown(NodeId parent = root) const {
        std::string text;
        for (NodeId id = firstChild(parent); id != none; id = nextSibling(id)) {
            const Node& node = at(id);
            EXPECT_EQ(find(parent, node.nameText()), id);
            EXPECT_EQ(node.parent, parent);
            char mode[8];
            std::snprintf(mode, sizeof mode, "%o", unsigned{node.mode});
            text += node.name;
            text += node.type == directory ? ':' + std::string(mode) + '{' + shown(id) + "} "
                                           : ':' + std::to_string(node.number) + ' ';
        }
        return text;
    }

    std::uint64_t count = 0;
};

TEST(EntryTree, HasEachPathOnce) {
    Tree tree;
    tree.with("b/c/d").with("b", directory, 04711).with("", directory, 0700).with("a").with("b/e", link).with("a");
    EXPECT_EQ(tree.shown(), "b:711{c:555{d:0 } e:4 } a:5 ");
    EXPECT_EQ(tree.at(EntryTree::root).mode, 0700);
    EXPECT_EQ(tree.pathOf(tree.find(tree.find(tree.find(1, "b"), "c"), "d")), "b/c/d");
    EXPECT_EQ(tree.locate(3)->place.block, 3U) << "of an entry that another one replaces";
    EXPECT_FALSE(tree.locate(6));
    EXPECT_EQ(tree.leftOut(), 0U);
}

TEST(EntryTree, LeavesOutWhatAnExtractionRefuses) {
    const std::string longest(255, 'x');
    const struct {
        const char* name;
        std::vector<std::pair<std::string, EntryType>> entries;
        const char* shown;
        std::uint64_t leftOut;
    } rows[] = {
        {"below a file", {{"a", file}, {"a/b", file}}, "a:0 ", 1},
        {"below a link", {{"a", link}, {"a/b/c", file}, {"a/b", directory}}, "a:0 ", 2},
        {"in place of a full directory", {{"a/b", file}, {"a", file}}, "a:555{b:0 } ", 1},
        {"in place of an empty directory", {{"a", directory}, {"a", link}}, "a:1 ", 0},
        {"a directory in place of a file", {{"a", file}, {"a", directory}, {"a/b", file}}, "a:644{b:2 } ", 0},
        {"the root late", {{"a", file}, {"", directory}, {"b", file}}, "a:0 b:2 ", 0},
        {"too long a name", {{longest + "y", file}, {longest + "y/a", file}, {"b", file}}, "b:2 ", 2},
    };
    for (const auto& row : rows) {
        Tree tree;
        for (const auto& [path, type] : row.entries) tree.with(path, type);
        EXPECT_EQ(tree.shown(), row.shown) << row.name;
        EXPECT_EQ(tree.leftOut(), row.leftOut) << row.name;
    }
}

// Each path has two thousand directories that no entry is for.
TEST(EntryTree, LimitsTheDirectoriesThatItMakesUp) {
    Tree tree;
    for (int i = 0; i < 100; ++i) {
        std::string path = std::to_string(i);
        while (path.size() < 4000) path += "/d";
        tree.with(path + "/file");
    }
    EXPECT_NEAR(static_cast<double>(tree.leftOut()), 66, 2);  // each needs 1999
    EXPECT_EQ(tree.with("plain").at(tree.find(1, "plain")).number, 100U);
}

TEST(EntryTree, FindsEachOfManyNames) {
    Tree tree;
    for (int i = 0; i < 5000; ++i) tree.with(std::to_string(i % 7) + '/' + std::to_string(i));
    for (int i = 0; i < 5000; ++i)
        EXPECT_EQ(tree.at(tree.find(tree.find(1, std::to_string(i % 7)), std::to_string(i))).number, unsigned(i));
    EXPECT_EQ(tree.find(1, "5000"), EntryTree::none);
}

}  // namespace
