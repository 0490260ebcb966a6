#include "platform/assets/asset_catalog.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "base/handle.h"
#include "plist/xml_property_list.h"

namespace tarnwick {

namespace {

using Bio = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using PublicKey = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;

constexpr std::size_t maxPathLength = 1024;
constexpr std::size_t maxNameLength = 255;
constexpr double maxDate = 253402300800.0 - 978307200.0;  // the year 10000, in seconds since 2001

bool isOneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

bool isAlphanumeric(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// An encrypted PEM block must not make the library ask for a passphrase at the terminal.
int noPassphrase(char*, int, int, void*) { return -1; }

PublicKey readPublicKey(const std::string& pem) {
    const Bio source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return PublicKey(source ? PEM_read_bio_PUBKEY(source.get(), nullptr, noPassphrase, nullptr) : nullptr);
}

// OpenSSL verifies with any curve, weak ones included.
bool isP256(const EVP_PKEY* key) {
    char group[32] = {};
    return EVP_PKEY_is_a(key, "EC") && EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1 &&
           std::string_view(group) == "prime256v1";
}

// The key decides the algorithm. The catalog has no field for it that an attacker could change.
AssetStatus verifySignature(const SignedCatalog& received, const std::string& publicKey) {
    const auto key = readPublicKey(publicKey);
    const bool isEd25519 = key && EVP_PKEY_is_a(key.get(), "ED25519");
    if (!key || !(isEd25519 || isP256(key.get()))) return AssetError::keyUnusable;

    const DigestContext context(EVP_MD_CTX_new());
    // Ed25519 has its own digest and accepts no other.
    const EVP_MD* digest = isEd25519 ? nullptr : EVP_sha256();
    if (!context || EVP_DigestVerifyInit(context.get(), nullptr, digest, nullptr, key.get()) != 1)
        return AssetError::keyUnusable;
    const auto* bytes = reinterpret_cast<const unsigned char*>(received.bytes.data());
    const auto* signature = reinterpret_cast<const unsigned char*>(received.signature.data());
    const int verified =
        EVP_DigestVerify(context.get(), signature, received.signature.size(), bytes, received.bytes.size());
    if (verified != 1) return AssetError::signatureWrong;
    return {};
}

std::string textOf(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* text = findValueAs<std::string>(dictionary, key);
    return text ? *text : std::string();
}

// A whole number that is not negative. Nothing for any other value.
std::optional<std::int64_t> readNumber(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* number = findValueAs<std::int64_t>(dictionary, key);
    return number && *number >= 0 ? std::optional(*number) : std::nullopt;
}

// A missing version counts as 0.
std::optional<std::int64_t> readVersion(const PropertyListDictionary& dictionary, std::string_view key) {
    return findValue(dictionary, key) ? readNumber(dictionary, key) : 0;
}

// Lower case only, because digests are compared as texts.
bool isSha256Text(std::string_view text) {
    return text.size() == 64 &&
           std::all_of(text.begin(), text.end(), [](char c) { return isOneOf(c, "0123456789abcdef"); });
}

AssetResult<AssetFile> parseFile(const PropertyListValue& value) {
    const auto* dictionary = value.as<PropertyListDictionary>();
    const auto size = dictionary ? readNumber(*dictionary, "Size") : std::nullopt;
    if (!size) return AssetError::catalogMalformed;
    AssetFile file{textOf(*dictionary, "Path"), static_cast<std::uint64_t>(*size), textOf(*dictionary, "SHA256"),
                   textOf(*dictionary, "URL")};
    if (!isSha256Text(file.sha256) || file.url.empty()) return AssetError::catalogMalformed;
    if (!acceptableAssetPath(file.path)) return AssetError::pathRefused;
    return file;
}

// Whether a path occurs twice, or is both a file and a folder.
// With such paths, the order of the files would decide what is installed.
bool pathsCollide(const std::vector<AssetFile>& files) {
    std::set<std::string_view> paths;
    for (const auto& file : files)
        if (!paths.insert(file.path).second) return true;
    for (const auto& file : files)
        for (auto slash = file.path.find('/'); slash != std::string::npos; slash = file.path.find('/', slash + 1))
            if (paths.contains(std::string_view(file.path).substr(0, slash))) return true;
    return false;
}

AssetResult<Asset> parseAsset(const PropertyListValue& value) {
    const auto* dictionary = value.as<PropertyListDictionary>();
    const auto* files = dictionary ? findValueAs<PropertyListArray>(*dictionary, "Files") : nullptr;
    if (!files || files->empty()) return AssetError::catalogMalformed;
    const auto content = readVersion(*dictionary, "ContentVersion");
    const auto mastered = readVersion(*dictionary, "MasteredVersion");
    auto type = textOf(*dictionary, "Type");
    if (!acceptableAssetType(type) || !content || !mastered) return AssetError::catalogMalformed;
    Asset asset{std::move(type), {*content, *mastered}, {}};
    for (const auto& each : *files) {
        auto file = parseFile(each);
        if (!file) return file.error();
        asset.files.push_back(std::move(*file));
    }
    if (pathsCollide(asset.files)) return AssetError::catalogMalformed;
    return asset;
}

std::optional<std::chrono::sys_seconds> readExpiry(const PropertyListDictionary& root) {
    const auto* date = findValueAs<PropertyListDate>(root, "Expiry");
    // Any date that a property list can express passes; beyond that, the conversion to an integer could overflow.
    if (!date || !(std::abs(date->secondsSince2001) < maxDate)) return std::nullopt;
    constexpr std::chrono::sys_seconds reference = std::chrono::sys_days(std::chrono::year(2001) / 1 / 1);
    return reference + std::chrono::seconds(static_cast<std::int64_t>(date->secondsSince2001));
}

}  // namespace

// The type becomes a folder of the store. Names with a leading dot are those of the store itself.
bool acceptableAssetType(std::string_view type) {
    return !type.empty() && type.size() <= maxNameLength && type.front() != '.' &&
           std::ranges::all_of(type, [](char c) { return isAlphanumeric(c) || isOneOf(c, "._-"); });
}

// Root creates a file at this path, so no component may lead out of the folder of the asset.
bool acceptableAssetPath(std::string_view path) {
    if (path.size() > maxPathLength || std::any_of(path.begin(), path.end(), isControl)) return false;
    for (;;) {
        const auto name = path.substr(0, path.find('/'));
        if (name.empty() || name == "." || name == ".." || name.size() > maxNameLength) return false;
        if (name.size() == path.size()) return true;
        path.remove_prefix(name.size() + 1);
    }
}

AssetResult<AssetCatalog> readCatalog(const SignedCatalog& received, const std::string& publicKey) {
    // Before the parser runs: it sees only bytes that the publisher has signed.
    const auto verified = verifySignature(received, publicKey);
    if (!verified) return verified.error();
    return parseCatalog(received.bytes);
}

AssetResult<AssetCatalog> parseCatalog(std::string_view bytes) {
    // The XML form only, so that a publisher can read what was signed.
    const auto document = parseXmlPropertyList(bytes);
    const auto* root = document ? document->as<PropertyListDictionary>() : nullptr;
    const auto* assets = root ? findValueAs<PropertyListArray>(*root, "Assets") : nullptr;
    const auto serial = assets ? readNumber(*root, "Serial") : std::nullopt;
    const auto expiry = assets ? readExpiry(*root) : std::nullopt;
    if (!serial || !expiry) return AssetError::catalogMalformed;
    AssetCatalog catalog{*serial, *expiry, {}};
    // Two assets of the same version would have the same folder.
    std::set<std::pair<std::string, AssetVersion>> known;
    for (const auto& each : *assets) {
        auto asset = parseAsset(each);
        if (!asset) return asset.error();
        if (!known.emplace(asset->type, asset->version).second) return AssetError::catalogMalformed;
        catalog.assets.push_back(std::move(*asset));
    }
    return catalog;
}

}  // namespace tarnwick
