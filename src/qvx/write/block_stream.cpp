#include "qvx/write/block_stream.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

LeaderChoice leaderForEachKind(std::uint64_t interval) {
    struct Last {
        std::uint64_t leader = 0;
        std::uint32_t kind = 0;
    };
    return {[interval, last = std::optional<Last>()](std::uint64_t sequence,
                                                     std::optional<std::uint32_t> kind) mutable -> LeaderChoice::Role {
        const bool sameLeader = last && sequence - last->leader < interval && (!kind || kind == last->kind);
        if (sameLeader) return {false, last->leader};
        last = {sequence, kind.value_or(0)};
        return {true};
    }};
}

BlockStream::BlockStream(const MessageKeys& keys, unsigned workers, Sink sink, LeaderChoice choice, std::uint64_t limit)
    : keys_(keys), sink_(std::move(sink)), limit_(limit), choice_(std::move(choice)), jobs_(workers + 2) {
    // Allocated here, where a failure can be thrown to the caller.
    for (Job& job : jobs_) {
        job.plain.resize(blockSize);
        job.encoded.resize(BlockEncoder::capacity);
    }
    try {
        for (unsigned i = 0; i < workers; ++i) workers_.emplace_back([this] { work(); });
    } catch (...) {
        close();  // or the workers that did start would wait forever
        throw;
    }
}

BlockStream::~BlockStream() { close(); }

void BlockStream::close() {
    const std::lock_guard lock(mutex_);
    closing_ = true;
    changed_.notify_all();
}

MutableBytes BlockStream::freeSpace() { return MutableBytes(job(block_).plain).subspan(offset_); }

void BlockStream::commit(std::size_t length) {
    offset_ += length;
    if (offset_ == blockSize) send(false);
}

void BlockStream::put(Bytes bytes) {
    std::copy(bytes.begin(), bytes.end(), freeSpace().begin());
    commit(bytes.size());
}

void BlockStream::setKind(std::uint32_t kind) {
    oneKind_ = offset_ == 0 || (oneKind_ && kind == kind_);
    kind_ = kind;
}

void BlockStream::pad() {
    if (offset_ == 0) return;
    const MutableBytes rest = freeSpace();
    std::fill(rest.begin(), rest.end(), std::uint8_t{0});
    // If there is no space for a record header, the padding is only zeros.
    if (rest.size() >= recordHeaderSize)
        encodeRecordHeader({RecordType::pad, false, static_cast<std::uint32_t>(rest.size() - recordHeaderSize)},
                           rest.data());
    commit(rest.size());
}

Status BlockStream::drain() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return nextToWrite_ == block_; });
    return status_;
}

Status BlockStream::finish(Bytes last) {
    put(last);
    send(true);
    return drain();
}

Status BlockStream::status() {
    const std::lock_guard lock(mutex_);
    return status_;
}

void BlockStream::send(bool last) {
    Job& sent = job(block_);
    sent.last = last;
    sent.length = offset_;
    chooseRole(sent);
    offset_ = 0;
    oneKind_ = true;
    std::unique_lock lock(mutex_);
    // Reserved here, because this function can throw std::bad_alloc to its caller, and a worker cannot.
    if (block_ == sealedLengths_.capacity()) sealedLengths_.reserve(2 * block_ + 64);
    if (block_ == limit_ && status_)
        status_ = Error{"an archive has at most 2097152 blocks; store the files in several archives", EFBIG};
    ++block_;
    changed_.notify_all();
    // The next block reuses the job of an earlier block, jobs_.size() before it. That block must be written first.
    changed_.wait(lock, [&] { return block_ - nextToWrite_ < jobs_.size(); });
}

void BlockStream::chooseRole(Job& job) {
    const auto role = choice_.role && !job.last ? choice_.role(block_, oneKind_ ? std::optional(kind_) : std::nullopt)
                                                : LeaderChoice::Role{};
    job.leads = role.leads;
    job.leader = nullptr;
    const auto found =
        std::ranges::find_if(leaders_, [&](const auto& leader) { return leader->leader == role.leader; });
    if (found != leaders_.end()) job.leader = *found;
    if (role.leads) keepLeader(Bytes(job.plain).first(job.length));
}

// A copy: the buffer of the leader is reused as soon as the leader is written, maybe before the blocks that need it are
// compressed.
void BlockStream::keepLeader(Bytes plain) {
    leaders_.push_back(std::make_shared<Dictionary>(Dictionary{block_, {plain.begin(), plain.end()}}));
    if (leaders_.size() > choice_.kept) leaders_.pop_front();
}

void BlockStream::work() {
    std::optional<BlockEncoder> encoder;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return closing_ || nextToSeal_ < block_; });
        if (closing_) return;
        const std::uint64_t sequence = nextToSeal_++;
        const bool failed = !status_;
        lock.unlock();
        job(sequence).encodedLength = 0;
        if (!failed) seal(sequence, encoder);
        lock.lock();
        job(sequence).done = true;
        writeDone(lock);
    }
}

// After a failure, the encoded length is 0.
void BlockStream::seal(std::uint64_t sequence, std::optional<BlockEncoder>& encoder) {
    Job& sealed = job(sequence);
    try {
        if (!encoder) encoder.emplace(keys_);
        sealed.encodedLength = encoder->encode(sequence, {sealed.last, sealed.leads, sealed.leader.get()},
                                               Bytes(sealed.plain).first(sealed.length), sealed.encoded.data());
    } catch (const std::bad_alloc&) {
        sealed.encodedLength = 0;
    }
    // Released now, not when the job is reused: the copy of a leader is then freed as soon as nothing needs it.
    sealed.leader = nullptr;
}

// Writes the blocks that are next in order, unless another worker is doing so. The lock is released during the call of
// the sink.
void BlockStream::writeDone(std::unique_lock<std::mutex>& lock) {
    // One worker writes at a time, so that the sink gets the blocks in order and needs no lock.
    if (writing_) return;
    writing_ = true;
    while (job(nextToWrite_).done) {
        Job& written = job(nextToWrite_);
        if (status_) {
            lock.unlock();
            Status result = write(written);
            lock.lock();
            if (!result) status_ = std::move(result);
        }
        // After an error the value is meaningless, and nobody reads it.
        sealedLengths_.push_back(static_cast<std::uint32_t>(written.encodedLength - blockHeaderSize));
        written.done = false;
        ++nextToWrite_;
        changed_.notify_all();
    }
    writing_ = false;
}

// Never throws: a std::string with a text as short as this one allocates no memory.
Status BlockStream::write(const Job& job) {
    const Error outOfMemory{"out of memory", ENOMEM, {}};
    if (job.encodedLength == 0) return outOfMemory;
    try {
        return sink_(Bytes(job.encoded).first(job.encodedLength));
    } catch (const std::bad_alloc&) {
        return outOfMemory;
    }
}

}  // namespace tarnwick::qvx
