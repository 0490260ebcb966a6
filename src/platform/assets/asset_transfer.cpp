#include "platform/assets/asset_transfer.h"

#include <curl/curl.h>

#include <cstdlib>
#include <optional>

#include "base/handle.h"
#include "platform/assets/asset_configuration.h"

namespace tarnwick {

namespace {

using Easy = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, FreeWith<curl_multi_cleanup>>;

constexpr int maxRedirects = 5;

// One request and its answer.
struct Exchange {
    Easy easy{curl_easy_init()};
    const TransferLimits& limits;
    const ByteSink& sink;
    std::uint64_t received = 0;
    AssetStatus accepted{};  // the failure, when the rest of the body was refused

    [[nodiscard]] long status() const {
        long code = 0;
        curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
        return code;
    }

    [[nodiscard]] bool isRedirect() const { return status() >= 300 && status() < 400; }

    bool receive(std::string_view bytes) {
        if (isRedirect()) return true;  // the body of a redirect is a page for people
        // Counted here, because a server need not state a length.
        received += bytes.size();
        accepted = received > limits.bytes ? limits.whenLarger : sink(bytes);
        return static_cast<bool>(accepted);
    }
};

extern "C" std::size_t tarnwickReceiveBytes(char* bytes, std::size_t size, std::size_t count, void* exchange) {
    try {
        return static_cast<Exchange*>(exchange)->receive({bytes, size * count}) ? size * count : 0;
    } catch (...) {  // an exception must not pass through libcurl
        static_cast<Exchange*>(exchange)->accepted = AssetError::storeFailed;
        return 0;
    }
}

// The curl command reads these variables, the library does not.
void setAuthorities(CURL* easy) {
    // CURL_CA_BUNDLE is set last, because the command prefers it to SSL_CERT_FILE.
    if (const auto* folder = std::getenv("SSL_CERT_DIR")) curl_easy_setopt(easy, CURLOPT_CAPATH, folder);
    if (const auto* file = std::getenv("SSL_CERT_FILE")) curl_easy_setopt(easy, CURLOPT_CAINFO, file);
    if (const auto* file = std::getenv("CURL_CA_BUNDLE")) curl_easy_setopt(easy, CURLOPT_CAINFO, file);
}

long millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
}

void setOptions(Exchange& exchange, const std::string& url, long timeLeft) {
    auto* easy = exchange.easy.get();
    const auto& limits = exchange.limits;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    // libcurl follows no redirect by itself: fetchUrl checks each target first.
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, url.substr(0, url.find(':')).c_str());
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "tarnwick");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);  // signals belong to the main thread
    // Otherwise the page that explains an HTTP error would be received as the content.
    curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeLeft);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, limits.minimumRate);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(limits.rateWindow.count()));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &tarnwickReceiveBytes);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &exchange);
    setAuthorities(easy);
}

AssetStatus resultOf(CURLcode code) {
    switch (code) {
        case CURLE_OK: return {};
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT: return AssetError::unreachable;
        case CURLE_PEER_FAILED_VERIFICATION: return AssetError::certificateRefused;
        case CURLE_HTTP_RETURNED_ERROR:
        case CURLE_FILE_COULDNT_READ_FILE: return AssetError::answerRefused;
        case CURLE_OPERATION_TIMEDOUT: return AssetError::tooSlow;
        default: return AssetError::transferFailed;
    }
}

std::optional<CURLcode> finished(CURLM* multi) {
    int left = 0;
    const auto* message = curl_multi_info_read(multi, &left);
    if (!message || message->msg != CURLMSG_DONE) return std::nullopt;
    return message->data.result;
}

// The multi interface, although there is only one transfer, because another thread can wake it.
AssetStatus perform(CURL* easy, const std::stop_token& stop) {
    const Multi multi(curl_multi_init());
    if (!multi || curl_multi_add_handle(multi.get(), easy) != CURLM_OK) return AssetError::transferFailed;
    AssetStatus result = AssetError::stopped;
    {
        // Its destructor waits for a call that is in progress, so none can reach `multi` after this block.
        const std::stop_callback wake(stop, [&multi] { curl_multi_wakeup(multi.get()); });
        for (int running = 0; !stop.stop_requested();) {
            auto healthy = curl_multi_perform(multi.get(), &running) == CURLM_OK;
            if (const auto code = finished(multi.get())) {
                result = resultOf(*code);
                break;
            }
            healthy = healthy && curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr) == CURLM_OK;
            if (!healthy) {
                result = AssetError::transferFailed;
                break;
            }
        }
    }
    curl_multi_remove_handle(multi.get(), easy);
    return result;
}

// The target of the redirect, if it is allowed.
std::optional<std::string> redirectTarget(const Exchange& exchange, const std::string& from) {
    char* target = nullptr;
    curl_easy_getinfo(exchange.easy.get(), CURLINFO_REDIRECT_URL, &target);
    if (!target || !acceptableUrl(target) || !sameScheme(from, target)) return std::nullopt;
    return target;
}

}  // namespace

AssetStatus fetchUrl(const std::string& url, const TransferLimits& limits, const ByteSink& sink,
                     const std::stop_token& stop) {
    std::string next = url;
    for (int redirects = 0; redirects <= maxRedirects; ++redirects) {
        // For libcurl, 0 is no limit.
        const auto timeLeft = millisecondsUntil(limits.deadline);
        if (timeLeft <= 0) return AssetError::tooSlow;
        Exchange exchange{.limits = limits, .sink = sink};
        if (!exchange.easy) return AssetError::transferFailed;
        setOptions(exchange, next, timeLeft);
        const auto result = perform(exchange.easy.get(), stop);
        // First: libcurl reports a refused body only as a failed write.
        if (!exchange.accepted) return exchange.accepted;
        if (!result || !exchange.isRedirect()) return result;
        const auto target = redirectTarget(exchange, next);
        if (!target) return AssetError::redirectRefused;
        next = *target;
    }
    return AssetError::redirectRefused;
}

}  // namespace tarnwick
