#include "data_queue.h"

#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxQueued = 524288;  // bytes that wait
constexpr std::size_t queuedPiece = 65536;

}  // namespace

void DataQueue::push(std::string_view data) {
    for (; !data.empty(); data.remove_prefix(std::min(data.size(), queuedPiece)))
        pushPiece(std::string(data.substr(0, queuedPiece)));
}

std::optional<std::string> DataQueue::pop() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return ended_ || !pieces_.empty(); });
    if (pieces_.empty()) return std::nullopt;
    auto piece = std::move(pieces_.front());
    pieces_.pop_front();
    size_ -= piece.size();
    changed_.notify_all();
    return piece;
}

void DataQueue::pushPiece(std::string piece) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || size_ < maxQueued; });
    if (closed_) return;
    size_ += piece.size();
    pieces_.push_back(std::move(piece));
    changed_.notify_all();
}

void DataQueue::set(bool& flag) {
    const std::lock_guard lock(mutex_);
    flag = true;
    changed_.notify_all();
}

}  // namespace tarnwick::qvx
