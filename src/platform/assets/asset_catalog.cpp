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
constexpr double latestDate = 253402300800.0 - 978307200.0;  // the year 10000, in seconds since 2001

bool isOneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

bool isAlphanumeric(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// An encrypted PEM block must not make the library ask for a passphrase at the terminal.
int noPassphrase(char*, int, int, void*) { return -1; }

PublicKey readPublicKey(const std::string& pem) {
    const Bio source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return PublicKey(source ? PEM_read_bio_PUBKEY(source.get(), nullptr, noPassphrase, nullptr) : nullptr);
}

bool isP256(const EVP_PKEY* key) {
    char group[32] = {};
    return EVP_PKEY_is_a(key, "EC") && EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1 &&
           std::string_view(group) == "prime256v1";
}

AssetResult verifySignature(const SignedCatalog& received, const std::string& publicKey) {
    const auto key = readPublicKey(publicKey);
    const bool isEd25519 = key && EVP_PKEY_is_a(key.get(), "ED25519");
    if (!key || !(isEd25519 || isP256(key.get()))) return AssetResult::keyUnusable;

    const DigestContext context(EVP_MD_CTX_new());
    const EVP_MD* digest = isEd25519 ? nullptr : EVP_sha256();
    if (!context || EVP_DigestVerifyInit(context.get(), nullptr, digest, nullptr, key.get()) != 1)
        return AssetResult::keyUnusable;
    const auto* bytes = reinterpret_cast<const unsigned char*>(received.bytes.data());
    const auto* signature = reinterpret_cast<const unsigned char*>(received.signature.data());
    const int verified =
        EVP_DigestVerify(context.get(), signature, received.signature.size(), bytes, received.bytes.size());
    return verified == 1 ? AssetResult::success : AssetResult::signatureWrong;
}

std::string textOf(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* text = findValueAs<std::string>(dictionary, key);
    return text ? *text : std::string();
}

// Reads a whole number that is not negative. False for any other value; a missing one leaves `number` unchanged.
bool readNumber(const PropertyListDictionary& dictionary, std::string_view key, std::int64_t& number) {
    if (!findValue(dictionary, key)) return true;
    const auto* found = findValueAs<std::int64_t>(dictionary, key);
    if (!found || *found < 0) return false;
    number = *found;
    return true;
}

bool isSha256Text(std::string_view text) {
    return text.size() == 64 &&
           std::all_of(text.begin(), text.end(), [](char c) { return isOneOf(c, "0123456789abcdef"); });
}

AssetResult parseFile(const PropertyListValue& value, AssetFile& file) {
    const auto* dictionary = value.as<PropertyListDictionary>();
    if (!dictionary) return AssetResult::catalogMalformed;
    file.path = textOf(*dictionary, "Path");
    file.sha256 = textOf(*dictionary, "SHA256");
    file.url = textOf(*dictionary, "URL");
    std::int64_t size = -1;
    if (!readNumber(*dictionary, "Size", size) || size < 0) return AssetResult::catalogMalformed;
    file.size = static_cast<std::uint64_t>(size);
    if (!isSha256Text(file.sha256) || file.url.empty()) return AssetResult::catalogMalformed;
    return acceptableAssetPath(file.path) ? AssetResult::success : AssetResult::pathRefused;
}

// Whether a path occurs twice, or is both a file and a folder.
bool pathsCollide(const std::vector<AssetFile>& files) {
    std::set<std::string_view> taken;
    for (const auto& file : files)
        if (!taken.insert(file.path).second) return true;
    for (const auto& file : files)
        for (auto slash = file.path.find('/'); slash != std::string::npos; slash = file.path.find('/', slash + 1))
            if (taken.contains(std::string_view(file.path).substr(0, slash))) return true;
    return false;
}

AssetResult parseAsset(const PropertyListValue& value, Asset& asset) {
    const auto* dictionary = value.as<PropertyListDictionary>();
    const auto* files = dictionary ? findValueAs<PropertyListArray>(*dictionary, "Files") : nullptr;
    if (!files || files->empty()) return AssetResult::catalogMalformed;
    asset.type = textOf(*dictionary, "Type");
    if (!acceptableAssetType(asset.type) || !readNumber(*dictionary, "ContentVersion", asset.version.content) ||
        !readNumber(*dictionary, "MasteredVersion", asset.version.mastered))
        return AssetResult::catalogMalformed;
    for (const auto& each : *files) {
        const auto result = parseFile(each, asset.files.emplace_back());
        if (result != AssetResult::success) return result;
    }
    return pathsCollide(asset.files) ? AssetResult::catalogMalformed : AssetResult::success;
}

bool readExpiry(const PropertyListDictionary& root, std::chrono::sys_seconds& expiry) {
    const auto* date = findValueAs<PropertyListDate>(root, "Expiry");
    if (!date || !(std::abs(date->secondsSince2001) < latestDate)) return false;
    constexpr std::chrono::sys_seconds reference = std::chrono::sys_days(std::chrono::year(2001) / 1 / 1);
    expiry = reference + std::chrono::seconds(static_cast<std::int64_t>(date->secondsSince2001));
    return true;
}

}  // namespace

bool acceptableAssetType(std::string_view type) {
    return !type.empty() && type.size() <= maxNameLength && type.front() != '.' &&
           std::all_of(type.begin(), type.end(), [](char c) { return isAlphanumeric(c) || isOneOf(c, "._-"); });
}

bool acceptableAssetPath(std::string_view path) {
    if (path.size() > maxPathLength || std::any_of(path.begin(), path.end(), isControl)) return false;
    for (;;) {
        const auto name = path.substr(0, path.find('/'));
        if (name.empty() || name == "." || name == ".." || name.size() > maxNameLength) return false;
        if (name.size() == path.size()) return true;
        path.remove_prefix(name.size() + 1);
    }
}

AssetResult readCatalog(const SignedCatalog& received, const std::string& publicKey, AssetCatalog& catalog) {
    const auto verified = verifySignature(received, publicKey);
    return verified == AssetResult::success ? parseCatalog(received.bytes, catalog) : verified;
}

AssetResult parseCatalog(std::string_view bytes, AssetCatalog& catalog) {
    const auto document = parseXmlPropertyList(bytes);
    const auto* root = document ? document->as<PropertyListDictionary>() : nullptr;
    const auto* assets = root ? findValueAs<PropertyListArray>(*root, "Assets") : nullptr;
    AssetCatalog parsed;
    parsed.serial = -1;
    if (!assets || !readNumber(*root, "Serial", parsed.serial) || parsed.serial < 0 ||
        !readExpiry(*root, parsed.expiry))
        return AssetResult::catalogMalformed;
    std::set<std::pair<std::string, AssetVersion>> known;
    for (const auto& each : *assets) {
        auto& asset = parsed.assets.emplace_back();
        const auto result = parseAsset(each, asset);
        if (result != AssetResult::success) return result;
        if (!known.emplace(asset.type, asset.version).second) return AssetResult::catalogMalformed;
    }
    catalog = std::move(parsed);
    return AssetResult::success;
}

}  // namespace tarnwick
