#include "qvx/read/spare_buffers.h"

#include <utility>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

std::vector<std::uint8_t> SpareBuffers::take() {
    const std::lock_guard lock(mutex_);
    if (buffers_.empty()) return {};
    auto buffer = std::move(buffers_.back());
    buffers_.pop_back();
    return buffer;
}

void SpareBuffers::give(std::vector<std::uint8_t> buffer) noexcept {
    const std::lock_guard lock(mutex_);
    if (buffers_.size() < maxBuffers && buffer.size() == blockSize) buffers_.push_back(std::move(buffer));
}

}  // namespace tarnwick::qvx
