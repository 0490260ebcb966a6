#include "qvx/write/block_stream.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

BlockStream::BlockStream(const HpkeKeys& keys, std::uint32_t groupLength, unsigned workers, Sink sink)
    : keys_(keys), groupLength_(groupLength), sink_(std::move(sink)) {
    free_.reserve(workers + 2);
    done_.reserve(workers + 2);
    while (free_.size() < workers + 2) {
        auto job = std::make_unique<Job>();
        job->plain.resize(blockSize);
        job->sealed.resize(BlockEncoder::capacity);
        free_.push_back(std::move(job));
    }
    filling_ = takeFree();
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

MutableBytes BlockStream::room() { return MutableBytes(filling_->plain).subspan(offset_); }

void BlockStream::commit(std::size_t length) {
    offset_ += length;
    if (offset_ == blockSize) send(false);
}

void BlockStream::put(Bytes bytes) {
    std::copy(bytes.begin(), bytes.end(), room().begin());
    commit(bytes.size());
}

void BlockStream::pad() {
    if (offset_ == 0) return;
    const MutableBytes rest = room();
    std::fill(rest.begin(), rest.end(), std::uint8_t{0});
    if (rest.size() >= recordHeaderSize)
        encodeRecordHeader({RecordType::pad, false, static_cast<std::uint32_t>(rest.size() - recordHeaderSize)},
                           rest.data());
    commit(rest.size());
}

int BlockStream::drain() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return next_ == block_; });
    return error_;
}

int BlockStream::finish(Bytes last) {
    put(last);
    send(true);
    return drain();
}

int BlockStream::error() {
    const std::lock_guard lock(mutex_);
    return error_;
}

void BlockStream::send(bool last) {
    JobPointer job = std::move(filling_);
    job->sequence = block_;
    job->last = last;
    job->length = offset_;
    if (block_ == leaderOf(block_, groupLength_)) {
        const Bytes plain = Bytes(job->plain).first(offset_);
        // A copy: the buffer of the leader is reused as soon as the leader is written, maybe before its group is
        // compressed.
        dictionary_ = std::make_shared<GroupDictionary>(GroupDictionary{block_, {plain.begin(), plain.end()}});
        job->dictionary = nullptr;
    } else {
        job->dictionary = standingAlone_ ? nullptr : dictionary_;
    }
    {
        const std::lock_guard lock(mutex_);
        // Here, where running out of memory can be thrown to the caller; a worker could not report it.
        if (block_ == sealedLengths_.capacity()) sealedLengths_.reserve(2 * block_ + 64);
        waiting_.push_back(std::move(job));
        ++block_;
        changed_.notify_all();
    }
    offset_ = 0;
    filling_ = takeFree();
}

BlockStream::JobPointer BlockStream::takeFree() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !free_.empty(); });
    JobPointer job = std::move(free_.back());
    free_.pop_back();
    return job;
}

void BlockStream::work() {
    std::optional<BlockEncoder> encoder;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return closing_ || !waiting_.empty(); });
        if (closing_) return;
        JobPointer job = std::move(waiting_.front());
        waiting_.pop_front();
        const bool wanted = error_ == 0;
        lock.unlock();
        job->sealedLength = 0;
        if (wanted) seal(*job, encoder);
        lock.lock();
        done_.push_back(std::move(job));
        writeDone(lock);
    }
}

// On failure the sealed length stays 0.
void BlockStream::seal(Job& job, std::optional<BlockEncoder>& encoder) {
    try {
        if (!encoder) encoder.emplace(keys_);
        job.sealedLength = encoder->encode(job.sequence, job.last, Bytes(job.plain).first(job.length),
                                           job.dictionary.get(), job.sealed.data());
    } catch (const std::bad_alloc&) {
        job.sealedLength = 0;
    }
    // Frees the copy of the leader with the last block of its group, not when the job is reused.
    job.dictionary = nullptr;
}

// Writes the blocks that are next in order, unless another worker is doing so. The lock is released during the call of
// the sink.
void BlockStream::writeDone(std::unique_lock<std::mutex>& lock) {
    if (writing_) return;
    writing_ = true;
    for (;;) {
        const auto found =
            std::find_if(done_.begin(), done_.end(), [&](const auto& job) { return job->sequence == next_; });
        if (found == done_.end()) break;
        JobPointer job = std::move(*found);
        done_.erase(found);
        if (error_ == 0 && job->sealedLength == 0) error_ = -ENOMEM;
        if (error_ == 0) {
            lock.unlock();
            const int status = sink_(Bytes(job->sealed).first(job->sealedLength));
            lock.lock();
            error_ = status;
        }
        // Meaningless after an error; then nobody reads it.
        sealedLengths_.push_back(static_cast<std::uint32_t>(job->sealedLength - blockHeaderSize));
        ++next_;
        free_.push_back(std::move(job));
        changed_.notify_all();
    }
    writing_ = false;
}

}  // namespace tarnwick::qvx
