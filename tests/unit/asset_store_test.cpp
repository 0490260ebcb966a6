// What one process can show.
#include "platform/assets/asset_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

class Store : public testing::Test {
protected:
    static Asset asset(std::int64_t content, std::int64_t mastered = 0) {
        const std::string abcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
        return {.type = "t", .version = {content, mastered}, .files = {{"sub/f", 3, abcDigest, "u"}}};
    }
    AssetStatus install(const Asset& wanted) {
        auto staged = store_.stage(wanted.type);
        if (!staged) return staged.error();
        const auto added = staged->addFile(wanted.files[0], [](const ByteSink& sink) { return sink("abc"); });
        return added ? store_.install(wanted, *staged) : added;
    }

    TemporaryFolder folder_;
    const fs::path root_ = folder_.path / "assets";
    const AssetStore store_{root_};
};

// Several leftovers at several times, because the order in which a folder is read differs by file system.
TEST_F(Store, RejectsDowngradeAndRemovesLeftoversOfKilledProcessesOnly) {
    const auto live = store_.stage("t");
    for (const int version : {1, 2, 10, 10}) {
        EXPECT_TRUE(install(asset(version))) << version;
        for (const std::string name : {"a", "b", "c", "d"}) folder_.write("assets/t/.staging." + name + "/f", "x");
    }
    EXPECT_EQ(install(asset(9, 99)).error(), AssetError::versionTooLow);
    EXPECT_TRUE(fs::exists(root_ / "t/2.0"));
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "t"), fs::directory_iterator()), 3) << "one staging is live";
}

TEST_F(Store, DoesNotUseIncompleteOrUntrustedVersion) {
    ASSERT_TRUE(install(asset(1)) && store_.isComplete(asset(1)));
    folder_.write("assets/t/1.0/sub/f", "abd");
    EXPECT_FALSE(store_.isComplete(asset(1)));
    EXPECT_TRUE(install(asset(1)) && store_.isComplete(asset(1))) << "the damaged version is replaced";
    fs::rename(root_ / "t/1.0", root_ / "aside");
    fs::create_directory_symlink(root_ / "aside", root_ / "t/1.0");

    // Made by hand: only 2.0 is a version. The others are a link, misnamed, writable by others, empty.
    for (const std::string name : {"2.0", "04.0", "7", "5.0"}) folder_.write("assets/t/" + name + "/f", "x");
    ::chmod((root_ / "t/5.0").c_str(), 0777);
    fs::create_directory(root_ / "t/3.0");
    EXPECT_EQ(*store_.listInstalled("t"), (std::vector<AssetVersion>{{2, 0}}));
}

TEST_F(Store, FailsOnTruncatedSerialInsteadOfAcceptingAnOlderCatalog) {
    EXPECT_TRUE(store_.storeCatalog({"bytes", "signature"}, 7));
    EXPECT_EQ(store_.storeCatalog({"bytes", "signature"}, 6).error(), AssetError::serialTooLow);
    folder_.write("assets/.serial", "7");
    EXPECT_EQ(store_.storeCatalog({"bytes", "signature"}, 9).error(), AssetError::storeFailed);
}

}  // namespace
