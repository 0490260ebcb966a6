// How the asset service reports a failure: by a code instead of a text. The execution log shows the codes as numbers,
// and tarnwick-assets(5) explains them, so a number never changes its meaning.
#pragma once

#include <cstdint>

#include "base/error.h"

namespace tarnwick {

enum class AssetError : std::int64_t {
    configurationUnusable = 1,  // the configuration file lacks a key, or names a URL of a kind that is not allowed
    keyUnusable = 2,            // the catalog key cannot be trusted, read, or used to verify
    stopped = 3,                // the process ended first
    storeFailed = 4,            // the store cannot be read or written

    unreachable = 10,         // no connection
    certificateRefused = 11,  // the certificate of the server was not accepted
    answerRefused = 12,       // the server does not have the file, or answers with another error
    redirectRefused = 13,     // redirected to another scheme, to an address that is not allowed, or too often
    tooSlow = 14,             // below the minimum rate, or over the total time
    transferFailed = 15,      // the transfer was interrupted

    catalogTooLarge = 20,
    signatureMissing = 21,
    signatureWrong = 22,
    catalogMalformed = 23,
    catalogExpired = 24,
    serialTooLow = 25,
    pathRefused = 26,  // a path of the catalog is absolute, or has "..", an empty component or a control character

    fileSizeWrong = 30,
    fileDigestWrong = 31,
    pathThroughLink = 32,
    versionTooLow = 33,      // a higher version is installed
    nothingToDownload = 34,  // the asset is not in the catalog
};

template <typename Value>
using AssetResult = Result<Value, AssetError>;
using AssetStatus = AssetResult<void>;

// The number that callers of the service get; 0 is success.
template <typename Value>
std::int64_t resultCode(const AssetResult<Value>& result) {
    return result ? 0 : static_cast<std::int64_t>(result.error());
}

}  // namespace tarnwick
