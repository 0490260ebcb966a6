// The asset-download service: refreshes the catalog, lists assets, downloads one.
//
// A thread of the service performs requests one after another. It calls each callback exactly once (when the thread
// cannot be started, the caller's thread calls it at once, with a failure), unless the process ends while the thread is
// in a system call that does not return. Nothing here prints.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/assets/asset_catalog.h"

namespace tarnwick {

using CompletionCallback = std::function<void(std::int64_t resultCode)>;  // an AssetError; 0 is success

// The wishes of the caller. This service never defers a transfer and never checks the power supply.
struct DownloadOptions {
    bool discretionary = true;
    bool requiresExternalPower = true;
};

struct AssetQueryAnswer {
    std::int64_t resultCode = 0;  // an AssetError; 0 is success
    std::vector<Asset> assets;
};

enum class AssetVersionKind { content, mastered };

inline constexpr int assetQueryKindAll = 2;             // installed or known to the catalog
inline constexpr std::int64_t assetStateInstalled = 2;  // installed and complete

// Whether a service is configured from which a catalog can be refreshed. Without one, installed assets can still be
// queried.
bool assetServiceConfigured();

void requestCatalogRefresh(const std::string& type, const DownloadOptions& options, CompletionCallback done);
void requestAssetDownload(const Asset& asset, const DownloadOptions& options, CompletionCallback done);

// Answers from what is on this machine: the stored catalog (verified again, ignored when it has expired) and the
// installed versions, including those of the package. A store that cannot be trusted is a failure; a factory folder
// that cannot be trusted counts as missing. Blocks for as long as the disk needs.
AssetQueryAnswer queryAssetsNow(const std::string& type, int kind);

std::int64_t assetInstallState(const Asset& asset);
std::int64_t assetVersionAttribute(const Asset& asset, AssetVersionKind kind);
std::optional<std::filesystem::path> assetLocalDirectory(const Asset& asset);  // nothing unless installed

// How long the download of all files of the asset may take: one minute, and the time that their sizes need at
// minTransferRate, but less than the time for which callers wait.
std::chrono::seconds assetDownloadTime(const Asset& asset);

struct AssetServicePlaces {
    std::filesystem::path configuration = "/etc/tarnwick/asset-service.plist";
    std::filesystem::path store = "/var/lib/tarnwick/assets";
    std::filesystem::path factory = "/usr/share/tarnwick/assets";  // same layout as the store; read-only
};

// The service itself. The functions above use one instance with the default places, made at first use. The destructor
// stops a transfer at once and waits briefly for the thread. A thread that does not end in that time runs until the
// process ends, and does not access the object.
class AssetService {
public:
    explicit AssetService(AssetServicePlaces places = {});
    ~AssetService();
    AssetService(const AssetService&) = delete;
    AssetService& operator=(const AssetService&) = delete;

    [[nodiscard]] bool configured() const;
    void requestCatalogRefresh(CompletionCallback done);
    void requestAssetDownload(const Asset& asset, CompletionCallback done);
    [[nodiscard]] AssetQueryAnswer queryAssetsNow(const std::string& type) const;
    [[nodiscard]] std::int64_t installState(const Asset& asset) const;
    [[nodiscard]] std::optional<std::filesystem::path> localDirectory(const Asset& asset) const;

private:
    struct Work;
    using Job = std::function<AssetStatus(const std::stop_token&)>;
    void submit(Job job, CompletionCallback done);

    AssetServicePlaces places_;
    std::shared_ptr<Work> work_;  // shared with the thread
    std::thread thread_;          // started by the first request
};

}  // namespace tarnwick
