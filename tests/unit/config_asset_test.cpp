// Fetching the configuration asset against a service and a clock of the test's own, linked in place of the real ones.
#include "config/config_asset.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "config/config_file.h"
#include "config/download_deadline.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t never = -99;

struct FakeService {
    bool concerns = true;
    std::int64_t catalogCode = 0, assetCode = 0, queryCode = 0;
    std::vector<tarnwick::Asset> assets;
    std::int64_t state = tarnwick::assetStateInstalled;
    std::optional<fs::path> place;
    std::vector<std::string> calls;
    std::vector<std::chrono::seconds> deadlines;
    tarnwick::CompletionCallback late;  // of a request that is never answered in time
    std::vector<std::thread> threads;
};
FakeService fake;

void answer(const tarnwick::DownloadOptions& options, std::int64_t code, tarnwick::CompletionCallback done) {
    EXPECT_FALSE(options.discretionary || options.requiresExternalPower);
    if (code == never)
        fake.late = std::move(done);
    else
        fake.threads.emplace_back([code, done = std::move(done)] { done(code); });
}

}  // namespace

namespace tarnwick {

// Far away, so that a lost wake-up would hang; at once where no answer will come.
DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) {
    fake.deadlines.push_back(fromNow);
    return DownloadClock::now() + (fake.late ? std::chrono::hours(0) : std::chrono::hours(1));
}

bool assetServiceConcerns(const std::string&) { return fake.concerns; }

void requestCatalogRefresh(const std::string& type, const DownloadOptions& options, CompletionCallback done) {
    fake.calls.push_back("refresh " + type);
    answer(options, fake.catalogCode, std::move(done));
}

void requestAssetDownload(const Asset&, const DownloadOptions& options, CompletionCallback done) {
    fake.calls.emplace_back("download");
    answer(options, fake.assetCode, std::move(done));
}

AssetQueryAnswer queryAssetsNow(const std::string&, int kind) {
    fake.calls.push_back("query " + std::to_string(kind));
    return {fake.queryCode, fake.assets};
}

std::int64_t assetInstallState(const Asset&) { return fake.state; }

std::int64_t assetVersionAttribute(const Asset& asset, AssetVersionKind kind) {
    return kind == AssetVersionKind::content ? asset.version.content : asset.version.mastered;
}

std::optional<fs::path> assetLocalDirectory(const Asset&) { return fake.place; }

}  // namespace tarnwick

using namespace tarnwick;

namespace {

const std::string catalogLine = "attempting to download catalog, this may take a moment...\n";
const std::string assetLines = "Start downloading asset...\nattempting to download asset, this may take a moment...\n";
const std::string goingOn =
    "WARNING: catalog update failed, will continue to look for assets using existing catalog...\n";

class ConfigAsset : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "config.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        place_ = pattern;
        fake = FakeService();
        fake.place = place_;
        fake.assets = {{.type = "t", .version = {1, 0}, .files = {}}};
    }
    void TearDown() override {
        for (auto& thread : fake.threads) thread.join();
        fs::remove_all(place_);
    }

    // What is logged, then the result in brackets.
    static std::string fetch() {
        testing::internal::CaptureStdout();
        const auto result = fetchConfigAsset();
        return testing::internal::GetCapturedStdout() + '[' + result + ']';
    }

    [[nodiscard]] std::string found() const { return '[' + place_.native() + ']'; }

    void file(const fs::path& name) const {
        fs::create_directories((place_ / name).parent_path());
        std::ofstream(place_ / name) << "x";
    }

    fs::path place_;
};

TEST_F(ConfigAsset, UsesAnInstalledAssetWithoutADownload) {
    EXPECT_EQ(fetch(), catalogLine + found());
    EXPECT_EQ(fake.calls, (std::vector<std::string>{"refresh com.vexlor.Provisor.tarnwick.config", "query 2"}));
    EXPECT_EQ(fake.deadlines, std::vector{std::chrono::seconds(30)});
}

TEST_F(ConfigAsset, DownloadsWhatIsNotInstalled) {
    fake.state = 0;
    EXPECT_EQ(fetch(), catalogLine + assetLines + found());
    EXPECT_EQ(fake.deadlines.at(1), std::chrono::seconds(1800));
    fake.assetCode = -7;
    EXPECT_EQ(fetch(), catalogLine + assetLines + "WARNING: asset download failed: -7\n[]");
    fake.assetCode = never;
    EXPECT_EQ(fetch(), catalogLine + assetLines + "WARNING: asset download failed: (no progress indicated)\n[]");
    fake.late(0);
}

TEST_F(ConfigAsset, GoesOnWithTheOldCatalog) {
    fake.catalogCode = 7;
    EXPECT_EQ(fetch(), catalogLine + "WARNING: catalog download failed: 7\n" + goingOn + found());
}

TEST_F(ConfigAsset, AnAnswerAfterTheDeadlineTouchesNothingThatHasGone) {
    fake.catalogCode = never;
    EXPECT_EQ(fetch(), catalogLine + "WARNING: catalog download failed: (no progress indicated)\n" + goingOn + found());
    std::thread([late = std::move(fake.late)] { late(0); }).join();
}

TEST_F(ConfigAsset, IsEmptyWhereThereIsNothing) {
    fake.concerns = false;
    EXPECT_EQ(fetch(), "[]");
    EXPECT_TRUE(fake.calls.empty());
    fake.concerns = true;
    fake.queryCode = 4;
    EXPECT_EQ(fetch(), catalogLine + "WARNING: Unable to query local assets\n[]");
    fake.queryCode = 0;
    fake.place.reset();
    EXPECT_EQ(fetch(), catalogLine + "[]");
    fake.assets.clear();
    EXPECT_EQ(fetch(), catalogLine + "[]");
}

TEST_F(ConfigAsset, PicksTheGreatestContentVersionThenTheGreatestMasteredOne) {
    const auto newest = [](std::vector<AssetVersion> versions) {
        std::vector<Asset> assets;
        for (const auto& version : versions) assets.push_back({.type = "t", .version = version, .files = {}});
        return pickNewestAsset(assets)->version;
    };
    EXPECT_EQ(newest({{3, 99}, {5, 1}, {0, 100}}), (AssetVersion{5, 1}));
    EXPECT_EQ(newest({{5, 12}, {5, 10}, {4, 13}}), (AssetVersion{5, 12}));
    EXPECT_FALSE(pickNewestAsset({}));
}

TEST_F(ConfigAsset, ResolvesTheFileOfThatExactNameAtAnyDepth) {
    file("Tarnwick.config.plist");
    fs::create_directory(place_ / "tarnwick.config.plist");
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
    file("deep/er/tarnwick.config.plist");
    EXPECT_EQ(resolveConfigFile(configurationFile), place_ / "deep/er/tarnwick.config.plist");
    EXPECT_EQ(listConfigAssetFiles().size(), 2U);

    fake.calls.clear();
    EXPECT_EQ(resolveConfigFile(1), "");
    EXPECT_TRUE(fake.calls.empty());
    fake.place.reset();
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
}

}  // namespace
