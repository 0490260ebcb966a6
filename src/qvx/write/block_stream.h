// The way from the archive stream to the file: blocks are filled by one thread, compressed and sealed by workers, and
// written in order by whichever worker completes the next one.
//
// Memory: workers + 2 blocks in work, each with its sealed form beside it; another for each group that has one in
// work; and about four blocks for the compressor of each worker.
//
// A sink that fails stops nothing: blocks go on through the queue and are dropped, so that no thread waits for ever;
// the filling thread sees error() and gives up when it likes.
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
    using Sink = std::function<int(Bytes)>;  // called in order, one call at a time; 0 or a negative errno value

    // Throws std::bad_alloc or std::system_error when buffers or threads are not to be had. The same keys and content
    // give the same bytes whatever the number of workers.
    BlockStream(const HpkeKeys& keys, std::uint32_t groupLength, unsigned workers, Sink sink);

    // Drops what is not written, and waits for the workers.
    ~BlockStream();
    BlockStream(const BlockStream&) = delete;
    BlockStream& operator=(const BlockStream&) = delete;

    // The block being filled, from the first free byte on. commit() what was put there; a full block goes off by
    // itself.
    MutableBytes room();
    void commit(std::size_t length);
    void put(Bytes bytes);  // at most what there is room for

    [[nodiscard]] std::uint64_t block() const { return block_; }
    [[nodiscard]] std::size_t offset() const { return offset_; }

    // Sends the rest of the block off as padding, if it is begun.
    void pad();

    // Waits until every block sent off is written; 0, or what failed first.
    int drain();

    // From the block being filled on, none depends on the leader of its group.
    void standAlone() { standingAlone_ = true; }

    // Sends the last, short block and waits for it.
    int finish(Bytes last);

    [[nodiscard]] int error();

    // Of all blocks written, in order. Only after drain().
    [[nodiscard]] const std::vector<std::uint32_t>& sealedLengths() const { return sealedLengths_; }

private:
    struct Job {
        std::uint64_t sequence = 0;
        bool last = false;
        std::size_t length = 0;
        std::size_t sealedLength = 0;  // 0: not sealed
        std::vector<std::uint8_t> plain;
        std::vector<std::uint8_t> sealed;
        std::shared_ptr<const GroupDictionary> dictionary;  // none for a leader
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

    // Of the filling thread.
    JobPointer filling_;
    bool standingAlone_ = false;
    std::uint64_t block_ = 0;
    std::size_t offset_ = 0;
    std::shared_ptr<const GroupDictionary> dictionary_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<JobPointer> waiting_;
    // The workers put into these, and must not run out of memory there; so room is made before they are given work.
    std::vector<JobPointer> free_;
    std::vector<JobPointer> done_;  // sealed, not yet written
    std::vector<std::uint32_t> sealedLengths_;
    std::uint64_t next_ = 0;  // to be written
    bool writing_ = false;    // somebody is at the sink
    bool closing_ = false;
    int error_ = 0;

    std::vector<std::jthread> workers_;  // last: they use all of the above
};

}  // namespace tarnwick::qvx
