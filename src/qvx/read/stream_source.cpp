#include "qvx/read/stream_source.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <mutex>
#include <vector>

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxKept = 32 << 20;  // bytes
constexpr int maxWait = 500;                 // milliseconds, until the question for an interruption is asked again

class StreamSource : public ByteSource {
public:
    StreamSource(FileDescriptor descriptor, StopQuestion interrupted)
        : descriptor_(std::move(descriptor)), interrupted_(std::move(interrupted)) {}

    // A position beyond any file, which leaves room for sums.
    [[nodiscard]] std::uint64_t size() const override { return std::numeric_limits<std::int64_t>::max(); }
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const override;
    [[nodiscard]] bool isStream() const override { return true; }

private:
    Status readKept(std::uint64_t position, MutableBytes bytes) const;
    Status keepUntil(std::uint64_t position) const;
    Status readNext(MutableBytes bytes) const;
    Status awaitBytes() const;

    FileDescriptor descriptor_;
    StopQuestion interrupted_;
    mutable std::mutex mutex_;
    mutable std::uint64_t next_ = 0;                                   // position in the stream
    mutable std::map<std::uint64_t, std::vector<std::uint8_t>> kept_;  // by position: what was not read yet
    mutable std::uint64_t keptBytes_ = 0;
    mutable Status state_;  // fails from the first failure on
};

Status StreamSource::read(std::uint64_t position, MutableBytes bytes) const {
    const std::lock_guard lock(mutex_);
    if (position < next_) return readKept(position, bytes);
    if (state_) state_ = keepUntil(position);
    if (state_) state_ = readNext(bytes);
    return state_;
}

// What was kept is read as a whole: the header of a block says how long the rest is.
Status StreamSource::readKept(std::uint64_t position, MutableBytes bytes) const {
    const auto found = kept_.find(position);
    if (found == kept_.end() || found->second.size() != bytes.size())
        return state_ ? Error{"a pipe can be read only once"} : state_;
    std::ranges::copy(found->second, bytes.begin());
    keptBytes_ -= bytes.size();
    kept_.erase(found);
    return {};
}

Status StreamSource::keepUntil(std::uint64_t position) const {
    if (position == next_) return {};
    const std::uint64_t begin = next_;
    if (position - begin > maxKept - keptBytes_) return Error{"too much of the pipe was not read"};
    std::vector<std::uint8_t> bytes(position - begin);
    if (Status read = readNext(bytes); !read) return read;
    keptBytes_ += bytes.size();
    kept_.emplace(begin, std::move(bytes));
    return {};
}

Status StreamSource::readNext(MutableBytes bytes) const {
    while (!bytes.empty()) {
        if (Status ready = awaitBytes(); !ready) return ready;
        const ssize_t count = ::read(descriptor_.get(), bytes.data(), bytes.size());
        if (count == 0) return Error{"the archive ends here"};
        if (count < 0 && errno != EINTR && errno != EAGAIN) return systemError(errno);
        if (count < 0) continue;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        next_ += static_cast<std::uint64_t>(count);
    }
    return {};
}

// The signal of an interruption may come to another thread.
Status StreamSource::awaitBytes() const {
    for (;;) {
        if (interrupted_()) return Error{"interrupted", ECANCELED};
        struct pollfd pipe {
            descriptor_.get(), POLLIN, 0
        };
        if (::poll(&pipe, 1, maxWait) > 0) return {};
    }
}

}  // namespace

std::unique_ptr<ByteSource> openStreamSource(FileDescriptor descriptor, StopQuestion interrupted) {
    return std::make_unique<StreamSource>(std::move(descriptor), std::move(interrupted));
}

}  // namespace tarnwick::qvx
