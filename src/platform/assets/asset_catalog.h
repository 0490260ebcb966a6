// The catalog: which assets there are, which files they have, and where to get them. An XML property list whose raw
// bytes the publisher signs. tarnwick-assets(5) describes it for publishers.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/assets/asset_result.h"

namespace tarnwick {

inline constexpr std::size_t largestCatalog = 1 << 20;  // bytes
inline constexpr std::size_t largestSignature = 1 << 10;

// Content version first, mastered version among equals.
struct AssetVersion {
    std::int64_t content = 0;
    std::int64_t mastered = 0;
    auto operator<=>(const AssetVersion&) const = default;
};

struct AssetFile {
    std::string path;        // relative, below the asset's directory; see acceptableAssetPath
    std::uint64_t size = 0;  // bytes
    std::string sha256;      // 64 lower-case hexadecimal digits
    std::string url;         // relative to the catalog's
};

struct Asset {
    std::string type;  // see acceptableAssetType
    AssetVersion version;
    std::vector<AssetFile> files;  // empty: known only from having been found installed
};

struct AssetCatalog {
    std::int64_t serial = 0;
    std::chrono::sys_seconds expiry;
    std::vector<Asset> assets;
};

// A catalog as it was received, nothing of it believed yet.
struct SignedCatalog {
    std::string bytes;
    std::string signature;  // raw: ECDSA P-256 with SHA-256 in DER, or Ed25519
};

// Letters, digits and "._-", not beginning with a dot: the name of one folder, and never one of the store's own files.
bool acceptableAssetType(std::string_view type);

// Stays below the folder it is taken from, wherever that is, and can be shown on a terminal.
bool acceptableAssetPath(std::string_view path);

// Verifies the signature over the raw bytes with the PEM public key, and only then parses. `catalog` is filled on
// success only. Neither the expiry nor the serial is compared here.
AssetResult readCatalog(const SignedCatalog& received, const std::string& publicKey, AssetCatalog& catalog);

// The second half of readCatalog. Believes its input: nothing but readCatalog and the fuzzer calls it.
AssetResult parseCatalog(std::string_view bytes, AssetCatalog& catalog);

}  // namespace tarnwick
