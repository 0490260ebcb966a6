#include "platform/assets/asset_service.h"

#include <curl/curl.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <system_error>

#include "platform/assets/asset_configuration.h"
#include "platform/assets/asset_store.h"
#include "platform/assets/asset_transfer.h"

namespace tarnwick {

namespace {

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

// Less than the time for which callers wait, so that a slow server and a silent service give different results.
constexpr auto catalogTime = 24s;  // for the catalog and its signature
constexpr auto maxAssetTime = 1740s;
constexpr auto minAssetTime = 60s;  // besides the bytes: connections, answers
constexpr auto shutdownTime = 1s;

AssetResult<std::string> fetchText(const std::string& url, const TransferLimits& limits, const std::stop_token& stop) {
    std::string text;
    const auto append = [&text](std::string_view bytes) -> AssetStatus {
        text += bytes;
        return {};
    };
    const auto fetched = fetchUrl(url, limits, append, stop);
    if (!fetched) return fetched.error();
    return text;
}

// The name of the signature is that of the catalog with a suffix. The suffix is part of the path, before any query.
std::string signatureUrl(const std::string& catalogUrl) {
    auto url = catalogUrl;
    return url.insert(std::min(url.find_first_of("?#"), url.size()), ".sig");
}

AssetResult<SignedCatalog> fetchCatalog(const std::string& url, const std::stop_token& stop) {
    const auto deadline = Clock::now() + catalogTime;
    auto bytes = fetchText(url, {maxCatalogSize, AssetError::catalogTooLarge, deadline}, stop);
    if (!bytes) return bytes.error();
    auto signature = fetchText(signatureUrl(url), {maxSignatureSize, AssetError::signatureWrong, deadline}, stop);
    if (signature) return SignedCatalog{std::move(*bytes), std::move(*signature)};
    return signature.error() == AssetError::answerRefused ? AssetError::signatureMissing : signature.error();
}

bool hasExpired(const AssetCatalog& catalog) { return catalog.expiry <= std::chrono::system_clock::now(); }

AssetStatus refreshCatalog(const AssetServicePlaces& places, const std::stop_token& stop) {
    const auto configuration = readAssetConfiguration(places.configuration);
    if (!configuration) return configuration.error();
    const auto received = fetchCatalog(configuration->catalogUrl, stop);
    if (!received) return received.error();
    const auto catalog = readCatalog(*received, configuration->catalogKey);
    if (!catalog) return catalog.error();
    // An attacker may replay an old catalog with a valid signature. The expiry limits how old it can be, and the store
    // refuses a lower serial number.
    if (hasExpired(*catalog)) return AssetError::catalogExpired;
    return AssetStore(places.store).storeCatalog(*received, catalog->serial);
}

AssetStatus downloadFile(const std::string& catalogUrl, const AssetFile& file, Clock::time_point deadline,
                         StagedAsset& staged, const std::stop_token& stop) {
    const auto url = resolveUrl(catalogUrl, file.url);
    if (!url) return AssetError::redirectRefused;
    return staged.addFile(file, [&](const ByteSink& sink) {
        return fetchUrl(*url, {file.size, AssetError::fileSizeWrong, deadline}, sink, stop);
    });
}

AssetStatus downloadAsset(const AssetServicePlaces& places, const Asset& asset, const std::stop_token& stop) {
    if (asset.files.empty()) return AssetError::nothingToDownload;
    const auto configuration = readAssetConfiguration(places.configuration);
    if (!configuration) return configuration.error();
    const AssetStore store(places.store);
    // Its destructor removes the files when a download fails.
    auto staged = store.stage(asset.type);
    if (!staged) return staged.error();
    const auto deadline = Clock::now() + assetDownloadTime(asset);
    for (const auto& file : asset.files)
        if (const auto added = downloadFile(configuration->catalogUrl, file, deadline, *staged, stop); !added)
            return added;
    return store.install(asset, *staged);
}

// The assets of the stored catalog. None unless a service is configured, the signature is right and the catalog has not
// expired.
std::vector<Asset> knownAssets(const AssetServicePlaces& places) {
    const auto stored = AssetStore(places.store).storedCatalog();
    const auto configuration = readAssetConfiguration(places.configuration);
    if (!stored || !configuration) return {};
    auto catalog = readCatalog(*stored, configuration->catalogKey);
    return catalog && !hasExpired(*catalog) ? std::move(catalog->assets) : std::vector<Asset>();
}

// Appends the installed versions that are not among the assets yet.
void addUnknownVersions(std::vector<Asset>& assets, const std::string& type,
                        const std::vector<AssetVersion>& installed) {
    for (const auto& version : installed) {
        const bool known = std::any_of(assets.begin(), assets.end(),
                                       [&version](const Asset& asset) { return asset.version == version; });
        if (!known) assets.push_back({.type = type, .version = version, .files = {}});
    }
}

// The main thread handles signals. With SIGPIPE blocked, a server that closes the connection causes a write error.
void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

AssetService& defaultService() {
    static AssetService service;
    return service;
}

}  // namespace

// The state of the thread. The thread owns a share of it, so it may outlive the service.
struct AssetService::Work {
    struct Item {
        Job job;
        CompletionCallback done;
    };

    std::mutex mutex;
    std::condition_variable_any changed;
    std::deque<Item> items;
    bool ended = false;
    std::stop_source stop;

    // The next request. Nothing when the service has stopped and every request has been answered.
    std::optional<Item> next() {
        std::unique_lock lock(mutex);
        changed.wait(lock, stop.get_token(), [this] { return !items.empty(); });
        if (items.empty()) return std::nullopt;
        auto item = std::move(items.front());
        items.pop_front();
        return item;
    }

    [[nodiscard]] AssetStatus perform(const Job& job) const {
        // Requests that are still in the queue are answered, too, but not begun.
        if (stop.stop_requested()) return AssetError::stopped;
        try {
            return job(stop.get_token());
        } catch (const std::exception&) {  // out of memory, or a folder changed while it was read
            return AssetError::storeFailed;
        }
    }

    void run() {
        blockSignals();
        while (const auto item = next()) item->done(resultCode(perform(item->job)));
        const std::lock_guard lock(mutex);
        ended = true;
        changed.notify_all();
    }
};

// curl_global_init without a cleanup: what the library registers for the end of the process must run after the
// destructor of the instance that exists until then.
AssetService::AssetService(AssetServicePlaces places) : places_(std::move(places)), work_(std::make_shared<Work>()) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

AssetService::~AssetService() {
    if (!thread_.joinable()) return;
    work_->stop.request_stop();
    // A system call on a dead network file system may never return, and must not keep the process from ending.
    std::unique_lock lock(work_->mutex);
    const bool ended = work_->changed.wait_for(lock, shutdownTime, [this] { return work_->ended; });
    lock.unlock();
    if (ended)
        thread_.join();
    else
        thread_.detach();
}

void AssetService::submit(Job job, CompletionCallback done) {
    {
        const std::lock_guard lock(work_->mutex);
        work_->items.push_back({std::move(job), std::move(done)});
        work_->changed.notify_all();
    }
    if (thread_.joinable()) return;
    try {
        thread_ = std::thread([work = work_] { work->run(); });
    } catch (const std::system_error&) {  // no thread could be started
        // Each request gets one answer; without a thread, it is given here.
        work_->next()->done(static_cast<std::int64_t>(AssetError::transferFailed));
    }
}

bool AssetService::configured() const { return assetServiceConfigured(places_.configuration); }

void AssetService::requestCatalogRefresh(CompletionCallback done) {
    submit([places = places_](const std::stop_token& stop) { return refreshCatalog(places, stop); }, std::move(done));
}

void AssetService::requestAssetDownload(const Asset& asset, CompletionCallback done) {
    submit([places = places_, asset](const std::stop_token& stop) { return downloadAsset(places, asset, stop); },
           std::move(done));
}

AssetQueryAnswer AssetService::queryAssetsNow(const std::string& type) const {
    const auto installed = AssetStore(places_.store).listInstalled(type);
    AssetQueryAnswer answer{.resultCode = resultCode(installed), .assets = {}};
    if (!installed) return answer;
    for (auto& asset : knownAssets(places_))
        if (asset.type == type) answer.assets.push_back(std::move(asset));
    addUnknownVersions(answer.assets, type, *installed);
    if (const auto factory = AssetStore(places_.factory).listInstalled(type))
        addUnknownVersions(answer.assets, type, *factory);
    return answer;
}

std::int64_t AssetService::installState(const Asset& asset) const {
    return localDirectory(asset) ? assetStateInstalled : 0;
}

// The store is searched first: when a site publishes a version that the factory folder also has, the files of the site
// are used.
std::optional<std::filesystem::path> AssetService::localDirectory(const Asset& asset) const {
    for (const AssetStore& store : {AssetStore(places_.store), AssetStore(places_.factory)})
        if (store.isComplete(asset)) return store.folderOf(asset);
    return std::nullopt;
}

// The sizes are those that the publisher has signed, so a server cannot extend the time. Each step is bounded, because
// the sum of the sizes may overflow.
std::chrono::seconds assetDownloadTime(const Asset& asset) {
    constexpr std::uint64_t bound = std::chrono::seconds(maxAssetTime).count() * minTransferRate;
    std::uint64_t bytes = 0;
    for (const auto& file : asset.files) bytes = std::min(bytes + std::min(file.size, bound), bound);
    return std::min<std::chrono::seconds>(minAssetTime + std::chrono::seconds(bytes / minTransferRate), maxAssetTime);
}

bool assetServiceConfigured() { return defaultService().configured(); }

void requestCatalogRefresh(const std::string&, const DownloadOptions&, CompletionCallback done) {
    defaultService().requestCatalogRefresh(std::move(done));  // one catalog for all types
}

void requestAssetDownload(const Asset& asset, const DownloadOptions&, CompletionCallback done) {
    defaultService().requestAssetDownload(asset, std::move(done));
}

AssetQueryAnswer queryAssetsNow(const std::string& type, int kind) {
    if (kind != assetQueryKindAll) return {};
    return defaultService().queryAssetsNow(type);
}

std::int64_t assetInstallState(const Asset& asset) { return defaultService().installState(asset); }

std::int64_t assetVersionAttribute(const Asset& asset, AssetVersionKind kind) {
    return kind == AssetVersionKind::content ? asset.version.content : asset.version.mastered;
}

std::optional<std::filesystem::path> assetLocalDirectory(const Asset& asset) {
    return defaultService().localDirectory(asset);
}

}  // namespace tarnwick
