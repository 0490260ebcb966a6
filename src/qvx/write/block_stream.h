// Turns the archive stream into blocks of the file. One thread fills blocks; workers compress and seal them; one worker
// at a time writes the blocks that are next in order.
//
// Memory: workers + 2 blocks, plain and sealed; one copy of the leader for each group with a block in progress; and
// about four blocks for the compressor of each worker.
//
// After a failure, the blocks still pass through the queue but are dropped, so that no thread waits forever. The
// filling thread can see the failure in status() and stop.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "base/error.h"
#include "qvx/format/block_codec.h"

namespace tarnwick::qvx {

class BlockStream {
public:
    // Called in block order, one call at a time, from any worker. It may throw std::bad_alloc.
    using Sink = std::function<Status(Bytes)>;

    // Throws std::bad_alloc or std::system_error when memory or threads are not available. The same keys and content
    // give the same bytes with any number of workers.
    BlockStream(const HpkeKeys& keys, std::uint32_t groupLength, unsigned workers, Sink sink);

    // Drops blocks that are not written yet, and waits for the workers.
    ~BlockStream();
    BlockStream(const BlockStream&) = delete;
    BlockStream& operator=(const BlockStream&) = delete;

    // The free part of the block that is being filled. Put bytes at its beginning, then commit() their count. A block
    // that is full is sent to the workers.
    MutableBytes freeSpace();
    void commit(std::size_t length);
    void put(Bytes bytes);  // copies and commits; at most freeSpace().size() bytes

    [[nodiscard]] std::uint64_t block() const { return block_; }
    [[nodiscard]] std::size_t offset() const { return offset_; }

    // Fills the rest of the block with padding, if the block has any content, and sends it to the workers.
    void pad();

    // Waits until every block that was sent is written, or dropped after a failure. Returns the first failure.
    Status drain();

    // From the current block on, no block uses its leader as a dictionary.
    void stopUsingLeaders() { useLeaders_ = false; }

    // Appends `last` to the current block and sends that block as the last one. Then waits as drain() does.
    Status finish(Bytes last);

    // The first failure so far.
    Status status();

    // The lengths of the sealed bytes of all blocks in order, tags included. Valid only after drain() succeeded.
    [[nodiscard]] const std::vector<std::uint32_t>& sealedLengths() const { return sealedLengths_; }

private:
    struct Job {
        bool last = false;
        bool done = false;  // passed through a worker, but not written yet
        std::size_t length = 0;
        std::size_t encodedLength = 0;  // 0: the block could not be encoded
        std::vector<std::uint8_t> plain;
        std::vector<std::uint8_t> encoded;                  // block header and sealed bytes
        std::shared_ptr<const GroupDictionary> dictionary;  // null for a leader, and after stopUsingLeaders()
    };

    Job& job(std::uint64_t sequence) { return jobs_[sequence % jobs_.size()]; }
    void close();
    void send(bool last);
    void work();
    void seal(std::uint64_t sequence, std::optional<BlockEncoder>& encoder);
    void writeDone(std::unique_lock<std::mutex>& lock);
    Status write(const Job& job);

    const HpkeKeys keys_;
    const std::uint32_t groupLength_;
    const Sink sink_;

    // Used by the filling thread only.
    bool useLeaders_ = true;
    std::size_t offset_ = 0;
    std::shared_ptr<const GroupDictionary> dictionary_;

    // A ring: between calls of send(), nextToWrite_ <= nextToSeal_ <= block_ < nextToWrite_ + jobs_.size(). Each job
    // belongs to the thread that works on it, except for `done`. The mutex guards `done` and the members below, up to
    // status_. Only the filling thread changes block_, so this thread may read block_ without the mutex.
    std::vector<Job> jobs_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t block_ = 0;  // being filled
    std::uint64_t nextToSeal_ = 0;
    std::uint64_t nextToWrite_ = 0;
    std::vector<std::uint32_t> sealedLengths_;
    bool writing_ = false;  // a worker is calling the sink
    bool closing_ = false;
    Status status_;

    std::vector<std::jthread> workers_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
