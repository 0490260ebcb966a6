// Runs jobs on all cores, and ends them in the order in which they were added.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace tarnwick::qvx {

class OrderedJobs {
public:
    class Job {
    public:
        virtual ~Job() = default;

        // Called on one of the threads, whose number is `worker`.
        virtual void run(unsigned worker) = 0;

        // Called after run(), when all earlier jobs have ended: of all jobs, one at a time.
        virtual void end() = 0;
    };

    // The jobs that have not ended have at most so much memory together, as add() is told, or there is only one of
    // them. Throws std::system_error when not a single thread can be started.
    explicit OrderedJobs(std::size_t maxMemory);
    OrderedJobs(const OrderedJobs&) = delete;
    OrderedJobs& operator=(const OrderedJobs&) = delete;

    // Drops the jobs that have not begun, and waits for the others: none of them may wait for the caller.
    ~OrderedJobs();

    [[nodiscard]] static unsigned workers();

    // Waits until there is memory for the job. Throws what a job has thrown.
    void add(std::shared_ptr<Job> job, std::size_t memory);

    // Waits until all jobs have ended. Throws what a job has thrown.
    void finish();

    // For a job in run() that has too much output to keep: waits until all earlier jobs have ended. After that, it may
    // do what end() does. False when that will not happen, because the object is being destroyed.
    bool waitForTurn(const Job& job);

private:
    struct Slot {
        std::shared_ptr<Job> job;
        std::size_t memory = 0;
        bool done = false;  // run() has returned
    };

    void work(unsigned worker);
    std::shared_ptr<Slot> claim();
    void run(Slot& slot, unsigned worker);
    void endFirst(std::unique_lock<std::mutex>& lock);
    void keepFailure();
    void throwFailure() const;

    std::size_t maxMemory_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<Slot>> slots_;  // that have not ended
    std::size_t claimed_ = 0;                  // of the slots
    std::size_t memory_ = 0;                   // of the slots
    bool ending_ = false;                      // a thread is ending the first slot
    bool closed_ = false;
    std::exception_ptr failure_;
    std::vector<std::jthread> threads_;
};

}  // namespace tarnwick::qvx
