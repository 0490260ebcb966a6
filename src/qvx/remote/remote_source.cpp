#include "qvx/remote/remote_source.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "qvx/remote/range_fetcher.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t pieceSize = 65536;
constexpr std::size_t maxPieces = 384;          // in the cache
constexpr std::size_t maxHinted = 256;          // pieces that one hint may ask for
constexpr std::size_t maxUnread = 128;          // pieces that nobody has read yet, before hints are ignored
constexpr std::uint64_t maxRequestPieces = 64;  // in one request, so that several are in progress

constexpr std::chrono::seconds failureLasts{30};

using Clock = std::chrono::steady_clock;

// A part of the object. It is complete when it has all its bytes.
struct Piece {
    std::vector<std::uint8_t> bytes;
    std::uint64_t used = 0;  // greater for a later use
    bool read = false;
};

class RemoteSource : public ByteSource {
public:
    RemoteSource(const std::string& url, StopQuestion interrupted)
        : fetcher_(url,
                   {[this](std::uint64_t position, Bytes bytes) { receive(position, bytes); },
                    [this](const auto& status, const auto& missing, const auto& object) {
                        finish(status, missing, object);
                    }},
                   std::move(interrupted)) {}

    Status open();

    [[nodiscard]] std::uint64_t size() const override { return size_; }
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const override;
    void willRead(std::uint64_t begin, std::uint64_t end) const override;
    [[nodiscard]] Status state() const override;

private:
    [[nodiscard]] bool mayRead() const;
    [[nodiscard]] bool isComplete(std::uint64_t number, const Piece& piece) const;
    [[nodiscard]] Piece* awaitPiece(std::unique_lock<std::mutex>& lock, std::uint64_t number, std::uint64_t end) const;
    void markRead(Piece& piece) const;
    [[nodiscard]] std::uint64_t piecesBefore(std::uint64_t number) const;
    void request(std::uint64_t begin, std::uint64_t end) const;
    void fetchRun(std::uint64_t begin, std::uint64_t end) const;
    void freePieces(std::size_t count) const;
    void receive(std::uint64_t position, Bytes bytes);
    void finish(const Status& status, const ByteRange& missing, const ObjectState& object);
    void drop(const ByteRange& missing);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    mutable std::map<std::uint64_t, Piece> pieces_;  // by number: all that were asked for
    mutable std::uint64_t uses_ = 0;
    mutable std::size_t unread_ = 0;  // count of pieces
    mutable Status state_;            // fails after a failure, for a while
    Clock::time_point failed_;
    std::uint64_t size_ = 0;        // constant after open()
    mutable RangeFetcher fetcher_;  // last, because its thread uses the others
};

// The first answer gives the size.
Status RemoteSource::open() {
    std::unique_lock lock(mutex_);
    fetchRun(0, 1);
    changed_.wait(lock, [this] { return size_ > 0 || !state_; });
    return state_;
}

Status RemoteSource::read(std::uint64_t position, MutableBytes bytes) const {
    std::unique_lock lock(mutex_);
    while (!bytes.empty()) {
        const std::uint64_t number = position / pieceSize;
        const std::uint64_t end = (position + bytes.size() - 1) / pieceSize + 1;
        const Piece* piece = awaitPiece(lock, number, end);
        if (!piece) return state_;
        const std::size_t offset = position % pieceSize;
        const std::size_t count = std::min(bytes.size(), piece->bytes.size() - offset);
        std::copy_n(piece->bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, bytes.begin());
        bytes = bytes.subspan(count);
        position += count;
    }
    return {};
}

void RemoteSource::willRead(std::uint64_t begin, std::uint64_t end) const {
    const std::uint64_t first = begin / pieceSize;
    const std::lock_guard lock(mutex_);
    if (state_ && unread_ < maxUnread) request(first, std::min((end - 1) / pieceSize + 1, first + maxHinted));
}

Status RemoteSource::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

// Otherwise a reader that goes on after failures would wait for every one of them.
bool RemoteSource::mayRead() const {
    if (!state_ && Clock::now() - failed_ > failureLasts) state_ = {};
    return static_cast<bool>(state_);
}

bool RemoteSource::isComplete(std::uint64_t number, const Piece& piece) const {
    return size_ > 0 && piece.bytes.size() == std::min(pieceSize, size_ - number * pieceSize);
}

// The piece with the number; those up to `end` will be needed next. Null after a failure.
Piece* RemoteSource::awaitPiece(std::unique_lock<std::mutex>& lock, std::uint64_t number, std::uint64_t end) const {
    while (mayRead()) {
        auto found = pieces_.find(number);
        if (found == pieces_.end()) {
            const auto ahead = unread_ < maxUnread ? std::min(piecesBefore(number), maxRequestPieces) : 0;
            request(number, end + ahead);
            found = pieces_.find(number);
        }
        if (isComplete(number, found->second)) return markRead(found->second), &found->second;
        changed_.wait(lock);
    }
    return nullptr;
}

void RemoteSource::markRead(Piece& piece) const {
    piece.used = ++uses_;
    if (!std::exchange(piece.read, true)) --unread_;
}

// A reader that nobody announced, and that has read so many pieces in order, probably continues.
std::uint64_t RemoteSource::piecesBefore(std::uint64_t number) const {
    std::uint64_t count = 0;
    while (count < maxRequestPieces && count < number && pieces_.contains(number - count - 1)) ++count;
    return count;
}

// Requests the pieces that are missing, each run of them at once.
void RemoteSource::request(std::uint64_t begin, std::uint64_t end) const {
    end = std::min(end, (size_ - 1) / pieceSize + 1);
    std::uint64_t first = begin;
    for (std::uint64_t number = begin; number < end; ++number) {
        const bool known = pieces_.contains(number);
        // A long run is cut at fixed places, so that the hints of a reader that continues add no short ones.
        const bool cut = number % maxRequestPieces == 0 && end - first > maxRequestPieces;
        if (!known && !cut) continue;
        fetchRun(first, number);
        first = known ? number + 1 : number;
    }
    fetchRun(first, end);
}

void RemoteSource::fetchRun(std::uint64_t begin, std::uint64_t end) const {
    if (begin >= end) return;
    freePieces(end - begin);
    unread_ += end - begin;
    // As if it were used later, so that what others read meanwhile does not displace what nobody has read yet.
    for (std::uint64_t number = begin; number < end; ++number) pieces_[number].used = ++uses_ + maxPieces;
    fetcher_.fetch({begin * pieceSize, end * pieceSize});
}

// Of the complete pieces, frees those that were not used for the longest time.
void RemoteSource::freePieces(std::size_t count) const {
    while (pieces_.size() + count > maxPieces) {
        auto oldest = pieces_.end();
        for (auto piece = pieces_.begin(); piece != pieces_.end(); ++piece)
            if (isComplete(piece->first, piece->second) &&
                (oldest == pieces_.end() || piece->second.used < oldest->second.used))
                oldest = piece;
        if (oldest == pieces_.end()) return;
        if (!oldest->second.read) --unread_;
        pieces_.erase(oldest);
    }
}

// A request begins at a piece, and what it receives continues what it received.
void RemoteSource::receive(std::uint64_t position, Bytes bytes) {
    const std::lock_guard lock(mutex_);
    while (!bytes.empty()) {
        const std::size_t count = std::min<std::uint64_t>(bytes.size(), pieceSize - position % pieceSize);
        Piece& piece = pieces_[position / pieceSize];
        piece.bytes.reserve(pieceSize);
        piece.bytes.insert(piece.bytes.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
        bytes = bytes.subspan(count);
        position += count;
    }
    changed_.notify_all();
}

void RemoteSource::finish(const Status& status, const ByteRange& missing, const ObjectState& object) {
    const std::lock_guard lock(mutex_);
    if (!status) {
        drop(missing);
        state_ = status;
        failed_ = Clock::now();
    } else if (size_ == 0) {
        size_ = object.size;  // only now: later, size() reads it without the lock
    }
    changed_.notify_all();
}

// The pieces can be asked for again.
void RemoteSource::drop(const ByteRange& missing) {
    if (missing.begin == missing.end) return;
    for (std::uint64_t number = missing.begin / pieceSize; number * pieceSize < missing.end; ++number)
        unread_ -= pieces_.erase(number);
}

}  // namespace

Result<std::unique_ptr<ByteSource>, ReadFault> openRemoteSource(const std::string& url, StopQuestion interrupted) {
    auto source = std::make_unique<RemoteSource>(url, std::move(interrupted));
    if (Status opened = source->open(); !opened) return ReadFault{opened.error()};
    return std::unique_ptr<ByteSource>(std::move(source));
}

}  // namespace tarnwick::qvx
