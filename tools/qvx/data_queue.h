// Data on its way from one thread to another.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwick::qvx {

// Compressed data on its way from the reader of the archive to a job. At most 512 KiB wait, and one piece.
class DataQueue {
public:
    // Waits until there is space. Discards the data when the reader has closed.
    void push(std::string_view data);

    // Waits for data; none at the end.
    std::optional<std::string> pop();

    void end() { set(ended_); }     // nothing more will be pushed
    void close() { set(closed_); }  // nothing more will be popped

private:
    void pushPiece(std::string piece);
    void set(bool& flag);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> pieces_;
    std::size_t size_ = 0;
    bool ended_ = false;
    bool closed_ = false;
};

}  // namespace tarnwick::qvx
