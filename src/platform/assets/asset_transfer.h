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

struct TransferLimits {
    std::uint64_t bytes = 0;                             // the transfer ends at the first byte more,
    AssetError whenLarger = AssetError::transferFailed;  // with this error
    std::chrono::milliseconds totalTime{};
    long minimumRate = 100;               // bytes a second, on average over
    std::chrono::seconds rateWindow{15};  // this long
};

// Receives the next bytes of the body. A failure ends the transfer with that failure.
using ByteSink = std::function<AssetStatus(std::string_view)>;

// Blocks until the transfer has ended. A stop takes effect at once and gives AssetError::stopped. Follows up to five
// redirects, each to a URL that is allowed and has the same scheme. The thread must have blocked SIGPIPE.
AssetStatus fetchUrl(const std::string& url, const TransferLimits& limits, const ByteSink& sink,
                     const std::stop_token& stop);

}  // namespace tarnwick
