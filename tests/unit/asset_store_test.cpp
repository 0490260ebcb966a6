// What one process can show; the program test has several processes and a kill.
#include "platform/assets/asset_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>

#include "temporary_folder.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

// Nothing on success.
template <typename Value>
std::optional<AssetError> errorOf(const AssetResult<Value>& result) {
    return result ? std::nullopt : std::optional(result.error());
}

class Store : public testing::Test {
protected:
    static Asset asset(std::int64_t content, std::int64_t mastered = 0) {
        const std::string abcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
        return {.type = "t", .version = {content, mastered}, .files = {{"sub/f", 3, abcDigest, "u"}}};
    }
    static AssetResult<> add(StagedAsset& staged, const AssetFile& file) {
        return staged.addFile(file, [](const ByteSink& sink) {
            const auto first = sink("a");
            return first ? sink("bc") : first;
        });
    }
    std::optional<AssetError> install(const Asset& wanted) {
        auto staged = store_.stage(wanted.type);
        if (!staged) return staged.error();
        const auto added = add(*staged, wanted.files[0]);
        return errorOf(added ? store_.install(wanted, *staged) : added);
    }
    void write(const fs::path& name, const std::string& text) const {
        fs::create_directories((root_ / name).parent_path());
        std::ofstream(root_ / name) << text;
    }

    TemporaryFolder folder_;
    const fs::path root_ = folder_.path / "assets";
    const AssetStore store_{root_};
};

// The leftovers are created before and after the versions: the order in which a folder is read differs by file system.
TEST_F(Store, RejectsDowngradeAndRemovesLeftoversOfKilledProcessesOnly) {
    const auto live = store_.stage("t");
    const auto leave = [this](const std::string& name) { write("t/.staging." + name + "/content/f", "x"); };
    for (const auto* name : {"a", "b", "c", "d"}) leave(name);
    for (const int version : {1, 2, 10, 10}) {
        EXPECT_EQ(install(asset(version)), std::nullopt) << version;
        for (const auto* name : {"e", "f", "g", "h"}) leave(name);
    }
    EXPECT_EQ(install(asset(9, 99)), AssetError::versionTooLow);
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_ / "t"))
        names.insert(entry.path().filename().string().substr(0, 9));
    EXPECT_EQ(names, (std::set<std::string>{".staging.", "10.0", "2.0"}));
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "t"), fs::directory_iterator()), 3)
        << "one staging is in use";
}

TEST_F(Store, RejectsLinkInsideStagedAsset) {
    auto staged = store_.stage("t");
    fs::create_directory_symlink("/tmp", fs::directory_iterator(root_ / "t")->path() / "content/sub");
    EXPECT_EQ(errorOf(add(*staged, asset(1).files[0])), AssetError::pathThroughLink);
}

TEST_F(Store, DoesNotUseIncompleteOrUntrustedVersion) {
    ASSERT_EQ(install(asset(1)), std::nullopt);
    for (const auto* damaged : {"abd", "ab"}) {
        write("t/1.0/sub/f", damaged);
        EXPECT_FALSE(store_.isComplete(asset(1))) << damaged;
        EXPECT_EQ(install(asset(1)), std::nullopt) << "replaces the damaged version";
        EXPECT_TRUE(store_.isComplete(asset(1)));
    }
    fs::rename(root_ / "t/1.0/sub/f", root_ / "aside");
    fs::create_symlink(root_ / "aside", root_ / "t/1.0/sub/f");
    EXPECT_FALSE(store_.isComplete(asset(1)));

    // Made by hand: only 2.0 is a version; the others are empty, misnamed, writable by others, a link.
    for (const auto* name : {"t/2.0/f", "t/04.0/f", "t/7/f", "t/5.0/f"}) write(name, "x");
    fs::create_directory(root_ / "t/3.0");
    ::chmod((root_ / "t/5.0").c_str(), 0777);
    fs::create_directory_symlink("2.0", root_ / "t/6.0");
    EXPECT_EQ(*store_.listInstalled("t"), (std::vector<AssetVersion>{{2, 0}}));
}

TEST_F(Store, FailsOnTruncatedSerialInsteadOfAcceptingAnOlderCatalog) {
    const SignedCatalog catalog{"bytes", std::string("s\0\n", 3)};
    EXPECT_EQ(errorOf(store_.storeCatalog(catalog, 7)), std::nullopt);
    EXPECT_EQ(store_.storedCatalog()->signature, catalog.signature);
    EXPECT_EQ(errorOf(store_.storeCatalog(catalog, 6)), AssetError::serialTooLow);
    write(".serial", "7");
    EXPECT_EQ(errorOf(store_.storeCatalog(catalog, 9)), AssetError::storeFailed);
}

}  // namespace
