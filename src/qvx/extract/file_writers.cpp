#include "qvx/extract/file_writers.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "base/open_files.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxBatchFiles = 128;

// A batch that has so many files ends with its directory, so that the next one need not wait for it.
constexpr std::size_t enoughBatchFiles = 64;
constexpr std::size_t maxBatchBytes = 1048576;
// And the one that is being filled: 8 MiB together.
constexpr std::size_t maxBatches = 7;

// Of one batch. All batches together have at most as many open as half of the limit of the process.
std::size_t maxDirectories() {
    static const std::size_t directories = std::clamp<std::size_t>(maxOpenFiles() / 2 / (maxBatches + 1), 1, 32);
    return directories;
}

std::size_t maxThreads() {
    static const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
    return threads;
}

std::size_t memoryOf(const SmallFile& file) { return file.content.size() + attributeMemory(file.tail); }

Status writeSmallFile(const SmallFile& file, TemporaryFile& temporary) {
    auto done = temporary.create(file.directory, file.head);
    if (done) done = temporary.append(file.content);
    if (done) done = temporary.finish(file.tail);
    if (done) done = temporary.rename(file.name);
    return done;
}

}  // namespace

FileWriters::~FileWriters() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

void FileWriters::add(SmallFile file) {
    if (isComplete(file)) submitBatch();
    if (batch_.files.empty() || batch_.files.back().directory != file.directory) ++batch_.directories;
    batch_.bytes += memoryOf(file);
    batch_.files.push_back(std::move(file));
}

bool FileWriters::isComplete(const SmallFile& next) const {
    const auto& files = batch_.files;
    if (files.empty()) return false;
    const bool full = files.size() == maxBatchFiles || batch_.bytes + memoryOf(next) > maxBatchBytes;
    const bool enough = files.size() >= enoughBatchFiles || batch_.directories == maxDirectories();
    return full || (enough && files.back().directory != next.directory);
}

std::vector<WrittenFile> FileWriters::flush() {
    submitBatch();
    Lock lock(mutex_);
    writeUntil([this] { return collectDone(), batches_.empty(); }, lock, temporary_);
    return std::exchange(written_, {});
}

void FileWriters::submitBatch() {
    if (batch_.files.empty()) return;
    Lock lock(mutex_);
    writeUntil([this] { return collectDone(), batches_.size() < maxBatches; }, lock, temporary_);
    batches_.push_back(std::exchange(batch_, {}));
    changed_.notify_all();
    // No more threads than batches, so that a small archive starts few.
    if (threads_.size() < maxThreads() && threads_.size() < batches_.size()) startThread();
}

// The caller has allocated the memory. If the threads freed it, they would wait for each other in the allocator.
void FileWriters::collectDone() {
    for (auto& batch : done_)
        for (auto& file : batch.files)
            if (file.identity) written_.push_back({file.head.number, {std::move(file.head.path), *file.identity}});
    done_.clear();
}

void FileWriters::startThread() {
    try {
        threads_.emplace_back([this] { runThread(); });
    } catch (const std::system_error&) {  // without threads, the caller writes the files
    }
}

void FileWriters::runThread() {
    TemporaryFile temporary(run_);
    Lock lock(mutex_);
    writeUntil([this] { return closed_; }, lock, temporary);
}

// The caller does not only wait for the threads: it writes batches until the condition is true.
template <typename Condition>
void FileWriters::writeUntil(Condition condition, Lock& lock, TemporaryFile& temporary) {
    while (!condition())
        if (!writeNextBatch(lock, temporary)) changed_.wait(lock);
}

// Unlocks while it writes. False when no batch can be started.
bool FileWriters::writeNextBatch(Lock& lock, TemporaryFile& temporary) {
    const auto batch = nextBatch();
    if (batch == batches_.end()) return false;
    batch->started = true;
    lock.unlock();
    for (auto& file : batch->files)
        // After an interruption, the remaining files are dropped.
        if (!run_.interrupted()) writeFile(file, temporary);
    lock.lock();
    done_.splice(done_.end(), batches_, batch);
    changed_.notify_all();
    return true;
}

// The first batch that is not started, unless an earlier one ends with the directory it begins with: two threads would
// wait for each other in that directory.
std::list<FileWriters::Batch>::iterator FileWriters::nextBatch() {
    for (auto batch = batches_.begin(); batch != batches_.end(); ++batch) {
        const auto sameDirectory = [&](const Batch& earlier) {
            return earlier.files.back().directory == batch->files.front().directory;
        };
        if (!batch->started && std::none_of(batches_.begin(), batch, sameDirectory)) return batch;
    }
    return batches_.end();
}

// An exception would end the program when it leaves a thread.
void FileWriters::writeFile(SmallFile& file, TemporaryFile& temporary) {
    Status written;
    try {
        written = writeSmallFile(file, temporary);
    } catch (const std::bad_alloc&) {
        written = Error{"out of memory", ENOMEM, {}};
    } catch (const std::system_error& error) {  // no random numbers for the temporary name
        written = systemError(error.code().value(), file.head.path);
    }
    temporary.discard();
    if (!written) return run_.fail(written.error());
    file.identity = temporary.identity();
}

}  // namespace tarnwick::qvx
