// Fetching one URL with libcurl, within limits. The proxy variables of the environment and the system's store of
// certificate authorities count as they do for the curl command.
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
    std::uint64_t bytes = 0;                               // the transfer is broken off at the first byte more,
    AssetResult whenLarger = AssetResult::transferFailed;  // with this result
    std::chrono::milliseconds totalTime{};
    long minimumRate = 100;               // bytes a second, on average over
    std::chrono::seconds rateWindow{15};  // this long
};

// Takes the next bytes of the body; anything but success ends the transfer with that result.
using ByteSink = std::function<AssetResult(std::string_view)>;

// Blocks until the transfer is over. A stop is noticed at once and gives AssetResult::stopped. Redirects are followed
// up to five times, each to a URL that is allowed and of the same scheme. The thread must have SIGPIPE blocked.
AssetResult fetchUrl(const std::string& url, const TransferLimits& limits, const ByteSink& sink,
                     const std::stop_token& stop);

}  // namespace tarnwick
