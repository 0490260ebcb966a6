// Fetching the configuration asset against a service and a clock of the test's own, linked in place of the real ones.
// What it does with the real service is for the program test to say.
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
    std::int64_t catalogCode = 0, assetCode = 0;
    std::int64_t state = tarnwick::assetStateInstalled;
    std::optional<fs::path> place;
    std::vector<std::string> calls;
    tarnwick::CompletionCallback late;  // of a request that is never answered in time
    std::vector<std::jthread> threads;
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
    fake.calls.push_back(std::to_string(fromNow.count()) + " s");
    return DownloadClock::now() + (fake.late ? std::chrono::hours(0) : std::chrono::hours(1));
}

bool assetServiceConcerns(const std::string&) { return true; }

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
    return {0, {{.type = "t", .version = {1, 0}, .files = {}}}};
}

std::int64_t assetInstallState(const Asset&) { return fake.state; }

std::int64_t assetVersionAttribute(const Asset&, AssetVersionKind) { return 0; }

std::optional<fs::path> assetLocalDirectory(const Asset&) { return fake.place; }

}  // namespace tarnwick

using namespace tarnwick;

namespace {

class ConfigAsset : public testing::Test {
protected:
    void SetUp() override {
        fake = FakeService();
        fake.place = folder_.path;
    }
    // The warnings, then the result in brackets.
    std::string fetch() const {
        testing::internal::CaptureStdout();
        const auto result = fetchConfigAsset();
        std::istringstream lines(testing::internal::GetCapturedStdout());
        std::string said;
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with("WARNING: ")) said += line.substr(9) + '\n';
        return said + '[' + (result == folder_.path ? "found" : result) + ']';
    }

    TemporaryFolder folder_;
};

TEST_F(ConfigAsset, IsDownloadedUnlessItIsInstalled) {
    EXPECT_EQ(fetch(), "[found]");
    std::vector<std::string> calls{"refresh com.vexlor.Provisor.tarnwick.config", "30 s", "query 2"};
    EXPECT_EQ(fake.calls, calls);
    fake.calls.clear();
    fake.state = 0;
    EXPECT_EQ(fetch(), "[found]");
    calls.insert(calls.end(), {"download", "1800 s"});
    EXPECT_EQ(fake.calls, calls);
    fake.assetCode = -7;
    EXPECT_EQ(fetch(), "asset download failed: -7\n[]");
    fake.assetCode = never;
    EXPECT_EQ(fetch(), "asset download failed: (no progress indicated)\n[]");
    fake.late(0);
}

TEST_F(ConfigAsset, AnAnswerAfterTheDeadlineTouchesNothingThatHasGone) {
    fake.catalogCode = never;
    EXPECT_EQ(fetch(),
              "catalog download failed: (no progress indicated)\n"
              "catalog update failed, will continue to look for assets using existing catalog...\n[found]");
    std::jthread([late = std::move(fake.late)] { late(0); });
}

TEST_F(ConfigAsset, HoldsTheFileOfThatExactNameAtAnyDepth) {
    const auto file = folder_.path / "deep/er/tarnwick.config.plist";
    fs::create_directory(folder_.path / "tarnwick.config.plist");
    std::ofstream(folder_.path / "Tarnwick.config.plist") << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), "");
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
    EXPECT_EQ(resolveConfigFile(configurationFile), file);
    EXPECT_EQ(listConfigAssetFiles().size(), 2U);
    EXPECT_EQ(resolveConfigFile(1), "");
}

}  // namespace
