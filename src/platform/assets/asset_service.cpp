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

// Less than the time for which callers wait, so that a slow server and a silent service give different results.
constexpr auto catalogTime = 12s;  // for each of the catalog's two files
constexpr auto assetTime = 1500s;  // for each file of an asset
constexpr auto partingTime = 1s;

std::chrono::seconds rateWindowFor(std::chrono::seconds total) { return std::min(total * 3 / 4, 15s); }

TransferLimits limitsFor(std::uint64_t bytes, AssetResult whenLarger, std::chrono::seconds total) {
    TransferLimits limits{.bytes = bytes, .whenLarger = whenLarger, .totalTime = total};
    limits.rateWindow = rateWindowFor(total);
    return limits;
}

AssetResult fetchText(const std::string& url, std::size_t limit, AssetResult whenLarger, std::string& text,
                      const std::stop_token& stop) {
    const auto append = [&text](std::string_view bytes) {
        text += bytes;
        return AssetResult::success;
    };
    return fetchUrl(url, limitsFor(limit, whenLarger, catalogTime), append, stop);
}

// The name of the signature is that of the catalog with a suffix. The suffix is part of the path, before any query.
std::string signatureUrl(const std::string& catalogUrl) {
    auto url = catalogUrl;
    return url.insert(std::min(url.find_first_of("?#"), url.size()), ".sig");
}

AssetResult fetchCatalog(const std::string& url, SignedCatalog& received, const std::stop_token& stop) {
    const auto result = fetchText(url, maxCatalogSize, AssetResult::catalogTooLarge, received.bytes, stop);
    if (result != AssetResult::success) return result;
    const auto signature =
        fetchText(signatureUrl(url), maxSignatureSize, AssetResult::signatureWrong, received.signature, stop);
    return signature == AssetResult::answerRefused ? AssetResult::signatureMissing : signature;
}

bool hasExpired(const AssetCatalog& catalog) { return catalog.expiry <= std::chrono::system_clock::now(); }

AssetResult refreshCatalog(const AssetServicePlaces& places, const std::stop_token& stop) {
    AssetConfiguration configuration;
    SignedCatalog received;
    AssetCatalog catalog;
    auto result = readAssetConfiguration(places.configuration, configuration);
    if (result == AssetResult::success) result = fetchCatalog(configuration.catalogUrl, received, stop);
    if (result == AssetResult::success) result = readCatalog(received, configuration.catalogKey, catalog);
    if (result != AssetResult::success) return result;
    if (hasExpired(catalog)) return AssetResult::catalogExpired;
    return AssetStore(places.store).keepCatalog(received, catalog.serial);
}

AssetResult downloadAsset(const AssetServicePlaces& places, const Asset& asset, const std::stop_token& stop) {
    AssetConfiguration configuration;
    if (asset.files.empty()) return AssetResult::nothingToDownload;
    const auto configured = readAssetConfiguration(places.configuration, configuration);
    if (configured != AssetResult::success) return configured;

    const AssetStore store(places.store);
    std::optional<StagedAsset> staged;
    const auto made = store.stage(asset.type, staged);
    if (made != AssetResult::success) return made;
    for (const auto& file : asset.files) {
        const auto url = resolveUrl(configuration.catalogUrl, file.url);
        if (!url) return AssetResult::redirectRefused;
        const auto result = staged->addFile(file, [&](const ByteSink& sink) {
            return fetchUrl(*url, limitsFor(file.size, AssetResult::fileSizeWrong, assetTime), sink, stop);
        });
        if (result != AssetResult::success) return result;
    }
    return store.install(asset, *staged);
}

// The assets of the stored catalog. Empty unless a service is configured, the signature is right and the catalog has
// not expired.
AssetCatalog usableCatalog(const AssetServicePlaces& places) {
    AssetConfiguration configuration;
    AssetCatalog catalog;
    const auto stored = AssetStore(places.store).storedCatalog();
    const bool usable = stored && readAssetConfiguration(places.configuration, configuration) == AssetResult::success &&
                        readCatalog(*stored, configuration.catalogKey, catalog) == AssetResult::success &&
                        !hasExpired(catalog);
    return usable ? catalog : AssetCatalog();
}

// The main thread handles signals. With SIGPIPE blocked, a server that closes the connection causes a write error.
void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

AssetService& theService() {
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

    [[nodiscard]] AssetResult perform(const Job& job) const {
        if (stop.stop_requested()) return AssetResult::stopped;
        try {
            return job(stop.get_token());
        } catch (const std::exception&) {  // out of memory, or a folder changed while it was read
            return AssetResult::storeFailed;
        }
    }

    void run() {
        blockSignals();
        while (const auto item = next()) item->done(static_cast<std::int64_t>(perform(item->job)));
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
    std::unique_lock lock(work_->mutex);
    const bool ended = work_->changed.wait_for(lock, partingTime, [this] { return work_->ended; });
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
        work_->next()->done(static_cast<std::int64_t>(AssetResult::transferFailed));
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
    AssetQueryAnswer answer;
    std::vector<AssetVersion> installed;
    const auto listed = AssetStore(places_.store).listInstalled(type, installed);
    answer.resultCode = static_cast<std::int64_t>(listed);
    if (listed != AssetResult::success) return answer;
    AssetStore(places_.factory).listInstalled(type, installed);
    for (auto& asset : usableCatalog(places_).assets)
        if (asset.type == type) answer.assets.push_back(std::move(asset));
    for (const auto& version : installed) {
        const auto known = std::any_of(answer.assets.begin(), answer.assets.end(),
                                       [&version](const Asset& asset) { return asset.version == version; });
        if (!known) answer.assets.push_back({.type = type, .version = version, .files = {}});
    }
    return answer;
}

std::int64_t AssetService::installState(const Asset& asset) const {
    return localDirectory(asset) ? assetStateInstalled : 0;
}

// The store is searched first: when a site publishes a version that the factory folder also has, the files of the site
// are used.
std::optional<std::filesystem::path> AssetService::localDirectory(const Asset& asset) const {
    for (const AssetStore& store : {AssetStore(places_.store), AssetStore(places_.factory)})
        if (store.holdsComplete(asset)) return store.folderOf(asset);
    return std::nullopt;
}

bool assetServiceConfigured() { return theService().configured(); }

void requestCatalogRefresh(const std::string&, const DownloadOptions&, CompletionCallback done) {
    theService().requestCatalogRefresh(std::move(done));  // one catalog for all types
}

void requestAssetDownload(const Asset& asset, const DownloadOptions&, CompletionCallback done) {
    theService().requestAssetDownload(asset, std::move(done));
}

AssetQueryAnswer queryAssetsNow(const std::string& type, int kind) {
    if (kind != assetQueryKindAll) return {};
    return theService().queryAssetsNow(type);
}

std::int64_t assetInstallState(const Asset& asset) { return theService().installState(asset); }

std::int64_t assetVersionAttribute(const Asset& asset, AssetVersionKind kind) {
    return kind == AssetVersionKind::content ? asset.version.content : asset.version.mastered;
}

std::optional<std::filesystem::path> assetLocalDirectory(const Asset& asset) {
    return theService().localDirectory(asset);
}

}  // namespace tarnwick
