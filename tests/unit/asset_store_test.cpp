#include "platform/assets/asset_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// "abc"
const std::string abcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class Store : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "store.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = fs::path(pattern) / "assets";
    }
    void TearDown() override { fs::remove_all(root_.parent_path()); }

    static Asset asset(std::int64_t content, std::int64_t mastered = 0) {
        return {.type = "t", .version = {content, mastered}, .files = {{"sub/f", 3, abcDigest, "u"}}};
    }

    AssetResult install(const Asset& wanted, const std::string& bytes = "abc") {
        std::optional<StagedAsset> staged;
        auto result = store_().stage(wanted.type, staged);
        for (const auto& file : wanted.files)
            if (result == AssetResult::success) result = add(*staged, file, bytes);
        return result == AssetResult::success ? store_().install(wanted, *staged) : result;
    }

    // Byte by byte, as a slow server would.
    static AssetResult add(StagedAsset& staged, const AssetFile& file, const std::string& bytes) {
        return staged.addFile(file, [&](const ByteSink& sink) {
            auto result = AssetResult::success;
            for (std::size_t i = 0; i < bytes.size() && result == AssetResult::success; ++i)
                result = sink(std::string_view(bytes).substr(i, 1));
            return result;
        });
    }

    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(root_ / "t")) found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }

    [[nodiscard]] AssetStore store_() const { return AssetStore(root_); }
    void write(const fs::path& name, const std::string& text) const { std::ofstream(root_ / name) << text; }

    fs::path root_;
};

using Names = std::vector<std::string>;

TEST_F(Store, InstallsKeepsTheNewestTwoAndNeverGoesBack) {
    for (const int version : {1, 2, 10}) EXPECT_EQ(install(asset(version)), AssetResult::success);
    EXPECT_EQ(names(), (Names{"10.0", "2.0"}));
    EXPECT_TRUE(store_().holdsComplete(asset(10)));
    EXPECT_EQ(install(asset(10)), AssetResult::success);  // another run was quicker
    EXPECT_EQ(install(asset(9, 99)), AssetResult::versionTooLow);
    EXPECT_EQ(names(), (Names{"10.0", "2.0"}));
}

TEST_F(Store, RefusesFilesThatAreNotTheCatalogsAndLeavesNothing) {
    EXPECT_EQ(install(asset(1), "ab"), AssetResult::fileSizeWrong);
    EXPECT_EQ(install(asset(1), "abcd"), AssetResult::fileSizeWrong);
    EXPECT_EQ(install(asset(1), "abd"), AssetResult::fileDigestWrong);
    EXPECT_EQ(names(), Names{});
}

TEST_F(Store, PassesNoLink) {
    std::optional<StagedAsset> staged;
    ASSERT_EQ(store_().stage("t", staged), AssetResult::success);
    const auto content = root_ / "t" / names().at(0) / "content";
    fs::create_directory_symlink("/tmp", content / "sub");
    EXPECT_EQ(add(*staged, asset(1).files[0], "abc"), AssetResult::pathThroughLink);
    staged.reset();
    fs::remove_all(root_ / "t");
    fs::create_directory_symlink("/tmp", root_ / "t");
    EXPECT_EQ(install(asset(1)), AssetResult::pathThroughLink);
}

TEST_F(Store, InstalledMeansCompleteAndNobodyElses) {
    ASSERT_EQ(install(asset(1)), AssetResult::success);
    const auto file = root_ / "t/1.0/sub/f";
    write("t/1.0/sub/f", "abd");
    EXPECT_FALSE(store_().holdsComplete(asset(1)));
    EXPECT_EQ(install(asset(1)), AssetResult::success);  // what is damaged is made anew
    EXPECT_TRUE(store_().holdsComplete(asset(1)));
    fs::rename(file, root_ / "aside");
    fs::create_symlink(root_ / "aside", file);
    EXPECT_FALSE(store_().holdsComplete(asset(1)));

    // Put there by hand: good, empty, of another name, a link, writable by everybody.
    for (const auto* name : {"2.0", "3.0", "04.0", "4", "5.0"}) fs::create_directories(root_ / "t" / name);
    for (const auto* name : {"2.0", "04.0", "4", "5.0"}) write(std::string("t/") + name + "/f", "x");
    fs::create_directory_symlink("2.0", root_ / "t/6.0");
    chmod((root_ / "t/5.0").c_str(), 0777);
    std::vector<AssetVersion> found;
    EXPECT_EQ(store_().listInstalled("t", found), AssetResult::success);
    EXPECT_EQ(found, (std::vector<AssetVersion>{{2, 0}}));
}

TEST_F(Store, ClearsUpAfterAKilledProcessButNotBehindALivingOne) {
    std::optional<StagedAsset> living;
    ASSERT_EQ(store_().stage("t", living), AssetResult::success);
    const auto kept = names();
    fs::create_directories(root_ / "t/.staging.killed/content");
    ASSERT_EQ(install(asset(1)), AssetResult::success);
    EXPECT_EQ(names(), (Names{kept.at(0), "1.0"}));
}

TEST_F(Store, TheSerialOnlyRises) {
    const SignedCatalog catalog{"bytes", std::string("s\0\n", 3)};
    EXPECT_EQ(store_().keepCatalog(catalog, 7), AssetResult::success);
    EXPECT_EQ(store_().storedCatalog()->bytes, "bytes");
    EXPECT_EQ(store_().storedCatalog()->signature, catalog.signature);
    EXPECT_EQ(store_().keepCatalog({"other", "s"}, 6), AssetResult::serialTooLow);
    EXPECT_EQ(store_().keepCatalog({"same", "s"}, 7), AssetResult::success);
    fs::remove(root_ / ".catalog");
    EXPECT_EQ(store_().keepCatalog(catalog, 6), AssetResult::serialTooLow);
    write(".serial", "7");  // cut short: must not be taken for none
    EXPECT_EQ(store_().keepCatalog(catalog, 9), AssetResult::storeFailed);
}

}  // namespace
