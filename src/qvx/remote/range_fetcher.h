// Fetches ranges of bytes of one object from a server, several at the same time.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "qvx/bytes.h"
#include "qvx/read/byte_source.h"
#include "qvx/remote/answer_head.h"

namespace tarnwick::qvx {

struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

// One thread performs all requests, at most six at the same time, over connections that it keeps open. The first range
// that is asked for must have been answered before the next one: it gives the state of the object, and every later
// answer must be about the same state. A failure that may pass is tried again, a few times, from where the bytes ended.
class RangeFetcher {
public:
    // Called on the thread of the fetcher, one at a time; neither may wait or throw.
    struct Receiver {
        std::function<void(std::uint64_t position, Bytes bytes)> receive;  // in the order of the range
        // The range is complete, or it failed: then `missing` is the rest of it. `object` is the state, if an answer
        // was good.
        std::function<void(const Status& status, const ByteRange& missing, const ObjectState& object)> finish;
    };

    // `url` is sent as it is. Certificates and proxies are those of the environment, as for the curl command, passwords
    // those of ~/.netrc.
    RangeFetcher(std::string url, Receiver receiver, StopQuestion interrupted);
    RangeFetcher(const RangeFetcher&) = delete;
    RangeFetcher& operator=(const RangeFetcher&) = delete;
    ~RangeFetcher();  // ends all requests

    // Begins to fetch the range, which may end after the object. Any thread may call it.
    void fetch(const ByteRange& range);

private:
    class Requests;

    void run(const std::stop_token& stop);
    std::vector<ByteRange> takeQueue();

    std::unique_ptr<Requests> requests_;
    std::mutex mutex_;
    std::vector<ByteRange> queue_;
    std::jthread thread_;  // last, so that it ends first
};

}  // namespace tarnwick::qvx
