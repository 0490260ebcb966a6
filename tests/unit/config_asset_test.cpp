// Against a service and a clock of the test's own, linked in place of the real ones. Waiting for the real service, and
// what comes of it, is for the program test to show.
#include "config/config_asset.h"

#include <gtest/gtest.h>

#include <fstream>

#include "config/config_file.h"
#include "config/download_deadline.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

namespace tarnwick {

struct {
    std::int64_t code = 0;  // that every request is answered with
    bool inTime = true;
    fs::path place;
    std::chrono::seconds timeAllowed{};
    CompletionCallback late;  // of a request that was not answered in time
} fake;

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) {
    fake.timeAllowed = fromNow;
    return DownloadClock::now();
}
void requestCatalogRefresh(const std::string&, const DownloadOptions& options, CompletionCallback done) {
    EXPECT_FALSE(options.discretionary || options.requiresExternalPower);
    if (fake.inTime) done(fake.code);
    fake.late = std::move(done);
}
void requestAssetDownload(const Asset&, const DownloadOptions& options, CompletionCallback done) {
    requestCatalogRefresh({}, options, std::move(done));
}
bool assetServiceConcerns(const std::string&) { return true; }
AssetQueryAnswer queryAssetsNow(const std::string&, int) { return {0, {Asset()}}; }
std::int64_t assetInstallState(const Asset&) { return assetStateInstalled; }
std::int64_t assetVersionAttribute(const Asset&, AssetVersionKind) { return 0; }
std::optional<fs::path> assetLocalDirectory(const Asset&) { return fake.place; }

TEST(ConfigAsset, AnAnswerAfterTheDeadlineTouchesNothingThatHasGone) {
    EXPECT_TRUE(downloadCatalog("t"));
    EXPECT_EQ(fake.timeAllowed, std::chrono::seconds(30));
    EXPECT_TRUE(downloadAsset({}));
    EXPECT_EQ(fake.timeAllowed, std::chrono::seconds(1800));
    fake.code = 7;
    EXPECT_FALSE(downloadAsset({}));
    fake.inTime = false;
    EXPECT_FALSE(downloadCatalog("t"));
    fake.late(0);
}

TEST(ConfigFile, IsTheOneOfThatExactNameAtAnyDepth) {
    const TemporaryFolder folder;
    fake.place = folder.path;
    const auto file = folder.path / "deep/er/tarnwick.config.plist";
    fs::create_directories(folder.path / "tarnwick.config.plist");
    std::ofstream(folder.path / "Tarnwick.config.plist") << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), file);
    EXPECT_EQ(resolveConfigFile(1), "");
}

}  // namespace tarnwick
