#include "qvx/extract/file_writers.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace tarnwick::qvx {

FileWriters::~FileWriters() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

void FileWriters::put(int directory, const std::shared_ptr<const void>& holder, SmallFile file) {
    const std::size_t size = file.content.size() + extrasSize(file.tail);
    const bool full = batch_.files.size() == maxBatchFiles || batch_.bytes + size > maxBatchBytes;
    if (full || batch_.directory != directory) handOver();
    batch_.directory = directory;
    batch_.holder = holder;
    batch_.bytes += size;
    batch_.files.push_back(std::move(file));
}

void FileWriters::settle() {
    handOver();
    std::unique_lock lock(mutex_);
    while (!batches_.empty())
        if (!writeNext(lock, temporary_)) changed_.wait(lock);
}

void FileWriters::handOver() {
    static const std::size_t maxThreads = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
    if (batch_.files.empty()) return;
    std::unique_lock lock(mutex_);
    while (batches_.size() >= maxBatches)
        if (!writeNext(lock, temporary_)) changed_.wait(lock);
    batches_.push_back(std::exchange(batch_, {}));
    changed_.notify_all();
    if (threads_.size() == maxThreads || batches_.size() <= threads_.size()) return;
    try {
        threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {  // without threads, the caller writes the files
    }
}

void FileWriters::work() {
    // The disk writer creates files in the working directory and reads the umask by changing it. A thread that cannot
    // have its own of both does nothing.
    if (::unshare(CLONE_FS) != 0) return;
    TemporaryFile temporary(run_);
    std::unique_lock lock(mutex_);
    while (!closed_)
        if (!writeNext(lock, temporary)) changed_.wait(lock);
}

// Writes the first batch that is not in progress and has no earlier one of the same directory before it. False when
// there is none.
bool FileWriters::writeNext(std::unique_lock<std::mutex>& lock, TemporaryFile& temporary) {
    auto next = batches_.begin();
    for (; next != batches_.end(); ++next) {
        const auto first = std::find_if(batches_.begin(), next,
                                        [&](const Batch& batch) { return batch.directory == next->directory; });
        if (first == next && !next->begun) break;
    }
    if (next == batches_.end()) return false;
    next->begun = true;
    lock.unlock();
    for (const auto& file : next->files)
        if (!run_.interrupted()) write(file, next->directory, temporary);
    lock.lock();
    batches_.erase(next);
    changed_.notify_all();
    return true;
}

void FileWriters::write(const SmallFile& file, int directory, TemporaryFile& temporary) {
    try {
        if (temporary.create(directory, file.head, nullptr) && temporary.data(file.content) &&
            temporary.finish(file.tail) && temporary.rename(file.name, true))
            return;
        run_.fail({temporary.what(), 0, file.head.path});
    } catch (const std::bad_alloc&) {
        run_.fail({"out of memory", ENOMEM, {}});
    } catch (const std::system_error& error) {  // no random numbers for the temporary name
        run_.fail(systemError(error.code().value(), file.head.path));
    }
    temporary.drop();
}

}  // namespace tarnwick::qvx
