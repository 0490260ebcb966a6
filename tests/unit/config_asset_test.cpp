// Waiting for the asset service, against a service and a clock of the test's own, linked in place of the real ones.
// What comes of it with the real service is for the program test to say.
#include "config/config_asset.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "config/config_file.h"
#include "config/download_deadline.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t never = -99;

struct FakeService {
    std::int64_t code = 0;  // that every request is answered with
    fs::path place;
    std::chrono::seconds timeAllowed{};
    tarnwick::CompletionCallback late;  // of a request that is never answered in time
    std::jthread thread;
};
FakeService fake;

void answer(const tarnwick::DownloadOptions& options, tarnwick::CompletionCallback done) {
    EXPECT_FALSE(options.discretionary || options.requiresExternalPower);
    if (fake.code == never)
        fake.late = std::move(done);
    else
        fake.thread = std::jthread([code = fake.code, done = std::move(done)] { done(code); });
}

}  // namespace

namespace tarnwick {

// Far away, so that a lost wake-up would hang; at once where no answer will come.
DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) {
    fake.timeAllowed = fromNow;
    return DownloadClock::now() + (fake.late ? std::chrono::hours(0) : std::chrono::hours(1));
}

void requestCatalogRefresh(const std::string&, const DownloadOptions& options, CompletionCallback done) {
    answer(options, std::move(done));
}
void requestAssetDownload(const Asset&, const DownloadOptions& options, CompletionCallback done) {
    answer(options, std::move(done));
}
bool assetServiceConcerns(const std::string&) { return true; }
AssetQueryAnswer queryAssetsNow(const std::string&, int) { return {0, {Asset()}}; }
std::int64_t assetInstallState(const Asset&) { return assetStateInstalled; }
std::int64_t assetVersionAttribute(const Asset&, AssetVersionKind) { return 0; }
std::optional<fs::path> assetLocalDirectory(const Asset&) { return fake.place; }

}  // namespace tarnwick

using namespace tarnwick;

namespace {

TEST(ConfigAsset, AnAnswerAfterTheDeadlineTouchesNothingThatHasGone) {
    EXPECT_TRUE(downloadCatalog("t"));
    EXPECT_EQ(fake.timeAllowed, std::chrono::seconds(30));
    EXPECT_TRUE(downloadAsset({}));
    EXPECT_EQ(fake.timeAllowed, std::chrono::seconds(1800));
    fake.code = 7;
    EXPECT_FALSE(downloadAsset({}));
    fake.code = never;
    EXPECT_FALSE(downloadCatalog("t"));
    std::jthread([late = std::move(fake.late)] { late(0); });
}

TEST(ConfigFile, IsTheOneOfThatExactNameAtAnyDepth) {
    const TemporaryFolder folder;
    fake.code = 0;
    fake.place = folder.path;
    const auto file = folder.path / "deep/er/tarnwick.config.plist";
    fs::create_directory(folder.path / "tarnwick.config.plist");
    std::ofstream(folder.path / "Tarnwick.config.plist") << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), file);
    EXPECT_EQ(listConfigAssetFiles().size(), 2U);
    EXPECT_EQ(resolveConfigFile(1), "");
}

}  // namespace
