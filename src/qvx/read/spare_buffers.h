// Memory of blocks that are not in use any more, for the next ones.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

namespace tarnwick::qvx {

// Blocks are opened by one thread and closed by another, and each thread has its own heap: without this, a cache of
// 64 MiB takes up to 30 MiB more. And the kernel need not provide new memory, page by page, for each block. Any thread.
class SpareBuffers {
public:
    SpareBuffers() { buffers_.reserve(maxBuffers); }
    std::vector<std::uint8_t> take();  // empty if there is none
    void give(std::vector<std::uint8_t> buffer) noexcept;

private:
    static constexpr std::size_t maxBuffers = 4;

    std::mutex mutex_;
    std::vector<std::vector<std::uint8_t>> buffers_;
};

}  // namespace tarnwick::qvx
