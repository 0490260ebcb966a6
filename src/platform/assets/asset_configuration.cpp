#include "platform/assets/asset_configuration.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include "base/file_reading.h"
#include "plist/property_list.h"

namespace tarnwick {

namespace {

using Url = std::unique_ptr<CURLU, FreeWith<curl_url_cleanup>>;
using CurlText = std::unique_ptr<char, FreeWith<curl_free>>;

constexpr std::size_t maxKeyFileSize = 1 << 16;  // bytes

std::string partOf(const Url& url, CURLUPart part) {
    char* text = nullptr;
    if (!url || curl_url_get(url.get(), part, &text, 0) != CURLUE_OK) return {};
    return CurlText(text).get();
}

Url parseUrl(const std::string& text) {
    Url url(curl_url());
    if (url && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) url.reset();
    return url;
}

// No name server is asked: libcurl itself maps "localhost" to the loopback address.
bool isLoopback(const std::string& host) {
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1) return ntohl(address.s_addr) >> 24 == 127;
    return host == "localhost" || host == "[::1]";
}

// By the parser that also performs the transfer: another one could find another host in the same text.
bool acceptable(const Url& url) {
    const auto scheme = partOf(url, CURLUPART_SCHEME);
    return scheme == "https" || scheme == "file" || (scheme == "http" && isLoopback(partOf(url, CURLUPART_HOST)));
}

}  // namespace

bool assetServiceConfigured(const std::filesystem::path& file) { return static_cast<bool>(openTrustedFile(file)); }

AssetResult<AssetConfiguration> readAssetConfiguration(const std::filesystem::path& file) {
    const auto dictionary = readTrustedPropertyListFile(file);
    const auto* url = dictionary ? findValueAs<std::string>(*dictionary, "CatalogURL") : nullptr;
    const auto* key = dictionary ? findValueAs<std::string>(*dictionary, "CatalogKey") : nullptr;
    if (!url || !key || !acceptableUrl(*url)) return AssetError::configurationUnusable;
    // A user who could replace the key could sign a catalog.
    const auto keyFile = openTrustedFile(*key);
    const auto keyText = keyFile ? readToEnd(*keyFile, maxKeyFileSize) : keyFile.error();
    if (!keyText || keyText->empty()) return AssetError::keyUnusable;
    return AssetConfiguration{*url, *keyText};
}

bool acceptableUrl(const std::string& url) { return acceptable(parseUrl(url)); }

bool sameScheme(const std::string& left, const std::string& right) {
    const auto scheme = partOf(parseUrl(left), CURLUPART_SCHEME);
    return !scheme.empty() && scheme == partOf(parseUrl(right), CURLUPART_SCHEME);
}

std::optional<std::string> resolveUrl(const std::string& base, const std::string& reference) {
    const auto url = parseUrl(base);
    if (!url || curl_url_set(url.get(), CURLUPART_URL, reference.c_str(), CURLU_URLENCODE) != CURLUE_OK)
        return std::nullopt;
    const auto resolved = partOf(url, CURLUPART_URL);
    // A catalog must not make root read local files (file:), nor leave TLS (http:).
    if (!acceptable(url) || !sameScheme(base, resolved)) return std::nullopt;
    return resolved;
}

}  // namespace tarnwick
