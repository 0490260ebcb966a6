#include "config/config_asset.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "config/download_deadline.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace {

constexpr const char* configAssetType = "com.vexlor.Provisor.tarnwick.config";
constexpr std::int64_t noResultYet = -1;

// Shared by the thread of the service and the waiting thread. Both own a share, so that a result that arrives after the
// wait has ended still has a valid target.
class Completion {
public:
    void report(std::int64_t code) {
        const std::lock_guard lock(mutex_);
        result_ = code;
        changed_.notify_all();
    }

    std::int64_t waitUntil(DownloadClock::time_point deadline) {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, deadline, [this] { return result_ != noResultYet; });
        return result_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::int64_t result_ = noResultYet;
};

// Performs either download and waits for it. `what` names it in messages.
template <typename Request>
bool download(const std::string& what, std::chrono::seconds timeAllowed, const Request& request) {
    const DownloadOptions options{.discretionary = false, .requiresExternalPower = false};
    const auto completion = std::make_shared<Completion>();
    request(options, [completion](std::int64_t code) { completion->report(code); });
    logInfo("attempting to download " + what + ", this may take a moment...");
    const auto result = completion->waitUntil(downloadDeadline(timeAllowed));
    if (result == 0) return true;
    const auto reason = result == noResultYet ? "(no progress indicated)" : std::to_string(result);
    logWarning(what + " download failed: " + reason);
    return false;
}

bool isOlder(const Asset& left, const Asset& right) { return compareAssetVersions(left, right) < 0; }

bool ensureInstalled(const Asset& asset) {
    if (assetInstallState(asset) == assetStateInstalled) return true;
    logInfo("Start downloading asset...");
    if (!downloadAsset(asset)) return false;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return true;
}

}  // namespace

std::string fetchConfigAsset() {
    // Without a service there is no catalog to refresh and nothing to warn about.
    if (assetServiceConfigured() && !downloadCatalog(configAssetType))
        logWarning("catalog update failed, will continue to look for assets using existing catalog...");
    const auto answer = queryAssetsNow(configAssetType, assetQueryKindAll);
    if (answer.resultCode != 0) {
        logWarning("Unable to query local assets");
        return {};
    }
    const auto newest = pickNewestAsset(answer.assets);
    if (!newest || !ensureInstalled(*newest)) return {};
    return assetLocalDirectory(*newest).value_or(std::filesystem::path());
}

bool downloadCatalog(const std::string& type) {
    return download("catalog", std::chrono::seconds(30), [&](const DownloadOptions& options, CompletionCallback done) {
        requestCatalogRefresh(type, options, std::move(done));
    });
}

bool downloadAsset(const Asset& asset) {
    return download("asset", std::chrono::seconds(1800), [&](const DownloadOptions& options, CompletionCallback done) {
        requestAssetDownload(asset, options, std::move(done));
    });
}

std::optional<Asset> pickNewestAsset(std::vector<Asset> assets) {
    if (assets.empty()) return std::nullopt;
    std::sort(assets.begin(), assets.end(), isOlder);
    return std::move(assets.back());
}

int compareAssetVersions(const Asset& left, const Asset& right) {
    for (const auto kind : {AssetVersionKind::content, AssetVersionKind::mastered}) {
        const auto leftVersion = assetVersionAttribute(left, kind);
        const auto rightVersion = assetVersionAttribute(right, kind);
        if (leftVersion != rightVersion) return leftVersion < rightVersion ? -1 : 1;
    }
    return 0;
}

}  // namespace tarnwick
