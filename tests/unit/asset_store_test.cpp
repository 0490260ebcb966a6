// What the program test, with several processes and a kill, cannot show.
#include "platform/assets/asset_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

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
    static AssetResult add(StagedAsset& staged, const AssetFile& file) {
        return staged.addFile(file, [&](const ByteSink& sink) {
            const auto result = sink("a");
            return result == AssetResult::success ? sink("bc") : result;
        });
    }
    AssetResult install(const Asset& wanted) {
        std::optional<StagedAsset> staged;
        auto result = store_.stage(wanted.type, staged);
        if (result == AssetResult::success) result = add(*staged, wanted.files[0]);
        return result == AssetResult::success ? store_.install(wanted, *staged) : result;
    }
    void write(const fs::path& name, const std::string& text) const { std::ofstream(root_ / name) << text; }

    TemporaryFolder folder_;
    const fs::path root_ = folder_.path / "assets";
    const AssetStore store_{root_};
};

TEST_F(Store, NeverGoesBackAndClearsTheLeftoversOfTheDeadOnly) {
    std::optional<StagedAsset> living;
    ASSERT_EQ(store_.stage("t", living), AssetResult::success);
    fs::create_directories(root_ / "t/.staging.killed/content");
    for (const int version : {1, 2, 10, 10}) EXPECT_EQ(install(asset(version)), AssetResult::success);
    EXPECT_EQ(install(asset(9, 99)), AssetResult::versionTooLow);
    EXPECT_TRUE(fs::exists(root_ / "t/2.0") && !fs::exists(root_ / "t/.staging.killed"));
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "t"), fs::directory_iterator()), 3);
}

TEST_F(Store, PassesNoLink) {
    std::optional<StagedAsset> staged;
    ASSERT_EQ(store_.stage("t", staged), AssetResult::success);
    fs::create_directory_symlink("/tmp", fs::directory_iterator(root_ / "t")->path() / "content/sub");
    EXPECT_EQ(add(*staged, asset(1).files[0]), AssetResult::pathThroughLink);
}

TEST_F(Store, InstalledMeansCompleteAndNobodyElses) {
    ASSERT_EQ(install(asset(1)), AssetResult::success);
    write("t/1.0/sub/f", "abd");
    EXPECT_FALSE(store_.holdsComplete(asset(1)));
    EXPECT_EQ(install(asset(1)), AssetResult::success) << "what is damaged is made anew";
    EXPECT_TRUE(store_.holdsComplete(asset(1)));
    fs::rename(root_ / "t/1.0/sub/f", root_ / "aside");
    fs::create_symlink(root_ / "aside", root_ / "t/1.0/sub/f");
    EXPECT_FALSE(store_.holdsComplete(asset(1)));

    // Put there by hand: good, empty, of another name, writable by everybody, a link.
    for (const auto* name : {"2.0", "3.0", "04.0", "5.0"}) fs::create_directories(root_ / "t" / name);
    for (const auto* name : {"t/2.0/f", "t/04.0/f", "t/5.0/f"}) write(name, "x");
    chmod((root_ / "t/5.0").c_str(), 0777);
    fs::create_directory_symlink("2.0", root_ / "t/6.0");
    std::vector<AssetVersion> found;
    EXPECT_EQ(store_.listInstalled("t", found), AssetResult::success);
    EXPECT_EQ(found, (std::vector<AssetVersion>{{2, 0}}));
}

TEST_F(Store, ASerialThatIsCutShortIsNotTakenForNone) {
    const SignedCatalog catalog{"bytes", std::string("s\0\n", 3)};
    EXPECT_EQ(store_.keepCatalog(catalog, 7), AssetResult::success);
    EXPECT_EQ(store_.storedCatalog()->signature, catalog.signature);
    write(".serial", "7");
    EXPECT_EQ(store_.keepCatalog(catalog, 9), AssetResult::storeFailed);
}

}  // namespace
