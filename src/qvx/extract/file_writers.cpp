#include "qvx/extract/file_writers.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxBatchFiles = 128;
constexpr std::size_t maxBatchBytes = 1048576;
// And the one that is being filled: 8 MiB together.
constexpr std::size_t maxBatches = 7;

std::size_t maxThreads() {
    static const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
    return threads;
}

Status writeSmallFile(const SmallFile& file, int directory, TemporaryFile& temporary) {
    auto done = temporary.create(directory, file.head);
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

void FileWriters::add(int directory, std::shared_ptr<const void> owner, SmallFile file) {
    const std::size_t size = file.content.size() + attributeMemory(file.tail);
    const bool full = batch_.files.size() == maxBatchFiles || batch_.bytes + size > maxBatchBytes;
    // A batch has one directory, so that the order of its files is the order of entries, and one thread at a time works
    // in a directory.
    if (full || batch_.directory != directory) submitBatch();
    batch_.directory = directory;
    batch_.owner = std::move(owner);
    batch_.bytes += size;
    batch_.files.push_back(std::move(file));
}

std::vector<WrittenFile> FileWriters::flush() {
    submitBatch();
    Lock lock(mutex_);
    writeUntil([this] { return batches_.empty(); }, lock, temporary_);
    return std::exchange(written_, {});
}

void FileWriters::submitBatch() {
    if (batch_.files.empty()) return;
    Lock lock(mutex_);
    writeUntil([this] { return batches_.size() < maxBatches; }, lock, temporary_);
    batches_.push_back(std::exchange(batch_, {}));
    changed_.notify_all();
    // No more threads than batches, so that a small archive starts few.
    if (threads_.size() < maxThreads() && threads_.size() < batches_.size()) startThread();
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
    std::vector<WrittenFile> written;
    for (const auto& file : batch->files)
        // After an interruption, the remaining files are dropped.
        if (!run_.interrupted() && writeFile(file, batch->directory, temporary))
            written.push_back({file.head.number, {file.head.path, temporary.identity()}});
    lock.lock();
    std::ranges::move(written, std::back_inserter(written_));
    batches_.erase(batch);
    changed_.notify_all();
    return true;
}

// The first batch that is not started and has none of the same directory before it.
std::list<FileWriters::Batch>::iterator FileWriters::nextBatch() {
    for (auto batch = batches_.begin(); batch != batches_.end(); ++batch) {
        const auto sameDirectory = [&](const Batch& earlier) { return earlier.directory == batch->directory; };
        if (!batch->started && std::none_of(batches_.begin(), batch, sameDirectory)) return batch;
    }
    return batches_.end();
}

// An exception would end the program when it leaves a thread.
bool FileWriters::writeFile(const SmallFile& file, int directory, TemporaryFile& temporary) {
    Status written;
    try {
        written = writeSmallFile(file, directory, temporary);
    } catch (const std::bad_alloc&) {
        written = Error{"out of memory", ENOMEM, {}};
    } catch (const std::system_error& error) {  // no random numbers for the temporary name
        written = systemError(error.code().value(), file.head.path);
    }
    temporary.discard();
    if (!written) run_.fail(written.error());
    return static_cast<bool>(written);
}

}  // namespace tarnwick::qvx
