#include "ordered_jobs.h"

#include <algorithm>

namespace tarnwick::qvx {

OrderedJobs::OrderedJobs(std::size_t maxMemory) : maxMemory_(maxMemory) {
    threads_.reserve(workers());
    for (unsigned worker = 0; worker < workers(); ++worker) {
        try {
            threads_.emplace_back([this, worker] { work(worker); });
        } catch (...) {
            if (threads_.empty()) throw;
            break;  // fewer threads work as well
        }
    }
}

// The threads are the last member, so they are joined right after this, when the lock is released.
OrderedJobs::~OrderedJobs() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

// hardware_concurrency() is 0 when the number of cores is not known. More than 16 would need too much memory.
unsigned OrderedJobs::workers() { return std::clamp(std::thread::hardware_concurrency(), 1U, 16U); }

void OrderedJobs::add(std::shared_ptr<Job> job, std::size_t memory) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return failure_ || slots_.empty() || memory_ + memory <= maxMemory_; });
    throwFailure();
    slots_.push_back(std::make_shared<Slot>(Slot{std::move(job), memory}));
    memory_ += memory;
    changed_.notify_all();
}

void OrderedJobs::finish() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return failure_ || slots_.empty(); });
    throwFailure();
}

bool OrderedJobs::waitForTurn(const Job& job) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closed_ || slots_.front()->job.get() == &job; });
    return !closed_;
}

void OrderedJobs::work(unsigned worker) {
    while (const auto slot = claim()) {
        run(*slot, worker);
        std::unique_lock lock(mutex_);
        slot->done = true;
        while (!ending_ && !slots_.empty() && slots_.front()->done) endFirst(lock);
        changed_.notify_all();
    }
}

std::shared_ptr<OrderedJobs::Slot> OrderedJobs::claim() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || claimed_ < slots_.size(); });
    return closed_ ? nullptr : slots_[claimed_++];
}

void OrderedJobs::run(Slot& slot, unsigned worker) {
    try {
        slot.job->run(worker);
    } catch (...) {
        keepFailure();
    }
}

void OrderedJobs::endFirst(std::unique_lock<std::mutex>& lock) {
    ending_ = true;
    const auto slot = slots_.front();
    lock.unlock();
    try {
        slot->job->end();
    } catch (...) {
        keepFailure();
    }
    lock.lock();
    slots_.pop_front();
    --claimed_;
    memory_ -= slot->memory;
    ending_ = false;
    changed_.notify_all();
}

void OrderedJobs::keepFailure() {
    const std::lock_guard lock(mutex_);
    failure_ = std::current_exception();
    changed_.notify_all();
}

void OrderedJobs::throwFailure() const {
    if (failure_) std::rethrow_exception(failure_);
}

}  // namespace tarnwick::qvx
