// Turns the archive stream into blocks of the file. One thread fills blocks; workers compress and seal them; the worker
// that completes the next block in order writes it.
//
// Memory: workers + 2 blocks, plain and sealed; one copy of the leader for each group with a block in progress; and
// about four blocks for the compressor of each worker.
//
// When the sink fails, blocks still pass through the queue but are dropped, so that no thread waits forever. The
// filling thread can see the failure in error() and stop.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "qvx/format/block_codec.h"

namespace tarnwick::qvx {

class BlockStream {
public:
    using Sink = std::function<int(Bytes)>;  // called in block order, one call at a time; 0 or a negative errno value

    // Throws std::bad_alloc or std::system_error when memory or threads are not available. The same keys and content
    // give the same bytes with any number of workers.
    BlockStream(const HpkeKeys& keys, std::uint32_t groupLength, unsigned workers, Sink sink);

    // Drops blocks that are not written yet, and waits for the workers.
    ~BlockStream();
    BlockStream(const BlockStream&) = delete;
    BlockStream& operator=(const BlockStream&) = delete;

    // The free part of the block that is being filled. Put bytes at its beginning, then commit() their count. A block
    // that is full is sent to the workers.
    MutableBytes room();
    void commit(std::size_t length);
    void put(Bytes bytes);  // copies and commits; at most room().size() bytes

    [[nodiscard]] std::uint64_t block() const { return block_; }
    [[nodiscard]] std::size_t offset() const { return offset_; }

    // Fills the rest of the block with padding, if the block has any content, and sends it to the workers.
    void pad();

    // Waits until every block that was sent is written. Returns 0 or the first error.
    int drain();

    // From the current block on, no block uses its leader as a dictionary.
    void standAlone() { standingAlone_ = true; }

    // Adds `last` to the current block, sends it as the last one, and waits until it is written. Returns 0 or the first
    // error.
    int finish(Bytes last);

    [[nodiscard]] int error();

    // Of all blocks written, in order, tags included. Valid only after drain().
    [[nodiscard]] const std::vector<std::uint32_t>& sealedLengths() const { return sealedLengths_; }

private:
    struct Job {
        std::uint64_t sequence = 0;
        bool last = false;
        std::size_t length = 0;
        std::size_t sealedLength = 0;  // 0: not sealed
        std::vector<std::uint8_t> plain;
        std::vector<std::uint8_t> sealed;
        std::shared_ptr<const GroupDictionary> dictionary;  // null for a leader and for a block that must not need one
    };
    using JobPointer = std::unique_ptr<Job>;

    void close();
    void send(bool last);
    JobPointer takeFree();
    void work();
    void seal(Job& job, std::optional<BlockEncoder>& encoder);
    void writeDone(std::unique_lock<std::mutex>& lock);

    const HpkeKeys keys_;
    const std::uint32_t groupLength_;
    const Sink sink_;

    // Used by the filling thread only.
    JobPointer filling_;
    bool standingAlone_ = false;
    std::uint64_t block_ = 0;
    std::size_t offset_ = 0;
    std::shared_ptr<const GroupDictionary> dictionary_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<JobPointer> waiting_;
    // The workers append to these and must not run out of memory there, so capacity is reserved before they get work.
    std::vector<JobPointer> free_;
    std::vector<JobPointer> done_;  // sealed, not yet written
    std::vector<std::uint32_t> sealedLengths_;
    std::uint64_t next_ = 0;  // sequence number of the next block to write
    bool writing_ = false;    // a worker is calling the sink
    bool closing_ = false;
    int error_ = 0;

    std::vector<std::jthread> workers_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
