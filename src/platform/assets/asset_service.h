// The asset-download service: refreshing the catalog, asking which assets there are, downloading one.
//
// Requests are answered on a thread of the service's own, one after the other: the callback is called exactly once,
// on that thread (at once, with a failure, when no thread can be started), unless the process ends while the operating
// system holds the thread in a call that does not return. Nothing here prints.
#pragma once

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

using CompletionCallback = std::function<void(std::int64_t resultCode)>;  // an AssetResult; 0 is success

// What the caller wishes; this service never defers a transfer and never looks at the power supply.
struct DownloadOptions {
    bool discretionary = true;
    bool requiresExternalPower = true;
};

struct AssetQueryAnswer {
    std::int64_t resultCode = 0;  // an AssetResult
    std::vector<Asset> assets;
};

enum class AssetVersionKind { content, mastered };

inline constexpr int assetQueryKindAll = 2;             // installed or known to the catalog
inline constexpr std::int64_t assetStateInstalled = 2;  // installed and complete

// Whether this machine has a service to refresh a catalog from. Without one the installed assets can still be queried.
bool assetServiceConfigured();

void requestCatalogRefresh(const std::string& type, const DownloadOptions& options, CompletionCallback done);
void requestAssetDownload(const Asset& asset, const DownloadOptions& options, CompletionCallback done);

// Answers from what is on this machine: the stored catalog, verified again and left aside when it has expired, and the
// installed versions, those that came with the package included. A store that cannot be trusted is a failure; a factory
// folder that cannot be trusted counts as missing. Blocks for as long as the disk takes.
AssetQueryAnswer queryAssetsNow(const std::string& type, int kind);

std::int64_t assetInstallState(const Asset& asset);
std::int64_t assetVersionAttribute(const Asset& asset, AssetVersionKind kind);
std::optional<std::filesystem::path> assetLocalDirectory(const Asset& asset);  // nothing unless installed

struct AssetServicePlaces {
    std::filesystem::path configuration = "/etc/tarnwick/asset-service.plist";
    std::filesystem::path store = "/var/lib/tarnwick/assets";
    std::filesystem::path factory = "/usr/share/tarnwick/assets";  // laid out like the store; read only, the package's
};

// The service itself. The functions above are those of one instance at the default places, made at first use. The
// destructor ends a transfer at once and waits a moment for the thread; a thread that cannot be reached is left to
// the end of the process, and touches nothing of the object.
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
    using Job = std::function<AssetResult(const std::stop_token&)>;
    void submit(Job job, CompletionCallback done);

    AssetServicePlaces places_;
    std::shared_ptr<Work> work_;  // shared with the thread
    std::thread thread_;          // runs from the first request on
};

}  // namespace tarnwick
