// Fetches one URL with libcurl, within limits. Proxy variables in the environment and the certificate store of the
// system apply as they do for the curl command.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>
#include <string>
#include <string_view>

#include "platform/assets/asset_result.h"

namespace tarnwick {

inline constexpr long minTransferRate = 16 << 10;  // bytes a second
inline constexpr std::chrono::seconds minRateWindow{60};

struct TransferLimits {
    std::uint64_t bytes = 0;                             // the transfer ends at the first byte more,
    AssetError whenLarger = AssetError::transferFailed;  // with this error
    std::chrono::steady_clock::time_point deadline{};    // redirects do not extend it
    long minimumRate = minTransferRate;                  // in bytes a second; a transfer may be slower
    std::chrono::seconds rateWindow = minRateWindow;     // for no longer than this
};

// Receives the next bytes of the body. A failure ends the transfer with that failure.
using ByteSink = std::function<AssetStatus(std::string_view)>;

// Blocks until the transfer has ended. A stop takes effect at once and gives AssetError::stopped. Follows up to five
// redirects, each to a URL that is allowed and has the same scheme. The thread must have blocked SIGPIPE.
AssetStatus fetchUrl(const std::string& url, const TransferLimits& limits, const ByteSink& sink,
                     const std::stop_token& stop);

}  // namespace tarnwick
