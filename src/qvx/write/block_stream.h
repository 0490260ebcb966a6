// Turns the archive stream into blocks of the file. One thread fills blocks; workers compress and seal them; one worker
// at a time writes the blocks that are next in order.
//
// Memory: workers + 2 blocks, plain and sealed; a copy of each leader that a block may still need; and about four
// blocks for the compressor of each worker.
//
// After a failure, the blocks still pass through the queue but are dropped, so that no thread waits forever. The
// filling thread can see the failure in status() and stop.
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

#include "base/error.h"
#include "qvx/format/block_codec.h"

namespace tarnwick::qvx {

// Which blocks are leaders, and which leader the others have. Called for the blocks in order, once each.
struct LeaderChoice {
    struct Role {
        bool leads = false;
        std::optional<std::uint64_t> leader = std::nullopt;  // one of the last `kept` leaders; none for a leader
    };
    // `kind` is that of all bytes of the block; none if it has bytes of several kinds.
    std::function<Role(std::uint64_t sequence, std::optional<std::uint32_t> kind)> role;
    std::size_t kept = 1;  // at most maxLeaders; each needs the memory of a block
};

// A block leads if it has bytes of one kind only and the last leader has another kind, or if that leader is `interval`
// blocks back.
LeaderChoice leaderForEachKind(std::uint64_t interval);

// Measured: 32 would make archives of small files 0.1 % smaller, but a damaged leader would damage twice as many
// blocks.
inline constexpr std::uint64_t leaderInterval = 16;

class BlockStream {
public:
    // Called in block order, one call at a time, from any worker. It may throw std::bad_alloc.
    using Sink = std::function<Status(Bytes)>;

    // Throws std::bad_alloc or std::system_error when memory or threads are not available. The same keys and content
    // give the same bytes with any number of workers. An archive of more blocks than `limit` fails with EFBIG; only
    // tests pass a lower limit.
    BlockStream(const MessageKeys& keys, unsigned workers, Sink sink,
                LeaderChoice choice = leaderForEachKind(leaderInterval), std::uint64_t limit = maxBlocks);

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

    // Of which kind the bytes are that are put from now on.
    void setKind(std::uint32_t kind);

    // Fills the rest of the block with padding, if the block has any content, and sends it to the workers.
    void pad();

    // Waits until every block that was sent is written, or dropped after a failure. Returns the first failure.
    Status drain();

    // From the current block on, no block is a leader or has one.
    void stopUsingLeaders() { choice_.role = nullptr; }

    // Appends `last` to the current block and sends that block as the last one. Then waits as drain() does.
    Status finish(Bytes last);

    // The first failure so far.
    Status status();

    // The lengths of the sealed bytes of all blocks in order, tags included. Valid only after drain() succeeded.
    [[nodiscard]] const std::vector<std::uint32_t>& sealedLengths() const { return sealedLengths_; }

private:
    struct Job {
        bool last = false;
        bool leads = false;
        bool done = false;  // passed through a worker, but not written yet
        std::size_t length = 0;
        std::size_t encodedLength = 0;  // 0: the block could not be encoded
        std::vector<std::uint8_t> plain;
        std::vector<std::uint8_t> encoded;         // block header and sealed bytes
        std::shared_ptr<const Dictionary> leader;  // null for none
    };

    Job& job(std::uint64_t sequence) { return jobs_[sequence % jobs_.size()]; }
    void close();
    void send(bool last);
    void chooseRole(Job& job);
    void keepLeader(Bytes plain);
    void work();
    void seal(std::uint64_t sequence, std::optional<BlockEncoder>& encoder);
    void writeDone(std::unique_lock<std::mutex>& lock);
    Status write(const Job& job);

    const MessageKeys keys_;
    const Sink sink_;
    const std::uint64_t limit_;

    // Used by the filling thread only.
    LeaderChoice choice_;
    std::size_t offset_ = 0;
    std::uint32_t kind_ = 0;
    bool oneKind_ = true;                                    // all bytes of the block so far are of kind_
    std::deque<std::shared_ptr<const Dictionary>> leaders_;  // the last ones

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
