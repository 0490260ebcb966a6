// The catalog: which assets exist, which files they have and where to download them. An XML property list; the
// publisher signs its raw bytes. tarnwick-assets(5) describes it for publishers.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/assets/asset_result.h"

namespace tarnwick {

inline constexpr std::size_t maxCatalogSize = 1 << 20;  // bytes
inline constexpr std::size_t maxSignatureSize = 1 << 10;

// Compared by content version, then by mastered version.
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
    std::vector<AssetFile> files;  // empty for an asset that was only found installed
};

struct AssetCatalog {
    std::int64_t serial = 0;
    std::chrono::sys_seconds expiry;
    std::vector<Asset> assets;
};

// A catalog as it was received; not verified yet.
struct SignedCatalog {
    std::string bytes;
    std::string signature;  // raw: ECDSA P-256 with SHA-256 in DER, or Ed25519
};

// Letters, digits and "._-", not beginning with a dot: a valid folder name that never collides with the files of the
// store.
bool acceptableAssetType(std::string_view type);

// Whether the path stays below the folder that it is relative to, and is safe to print on a terminal.
bool acceptableAssetPath(std::string_view path);

// Verifies the signature over the raw bytes with the PEM public key, and parses only after that. Does not check expiry
// or serial.
AssetResult<AssetCatalog> readCatalog(const SignedCatalog& received, const std::string& publicKey);

// The second half of readCatalog. It does not verify its input; only readCatalog and the fuzzer call it.
AssetResult<AssetCatalog> parseCatalog(std::string_view bytes);

}  // namespace tarnwick
