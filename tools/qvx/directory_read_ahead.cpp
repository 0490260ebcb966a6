#include "directory_read_ahead.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>

#include "base/handle.h"
#include "qvx/write/disk_entry.h"
#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

namespace {

using DirectoryHandle = std::unique_ptr<DIR, FreeWith<closedir>>;

// Opened in its folder, because the kernel refuses a path of 4096 bytes.
Result<DirectoryHandle> openListed(const std::string& path) {
    const auto folder = openDirectory(std::string(folderOf(path)));
    if (!folder) return folder.error();
    FileDescriptor opened(openat(folder->get(), nameOf(path), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DirectoryHandle handle(opened ? fdopendir(opened.get()) : nullptr);
    if (!handle) return systemError(errno);
    static_cast<void>(opened.release());  // the handle closes it
    return handle;
}

// The errno value of a failure. A directory may be readable without permission to reach the files in it. Mostly it says
// what kind of file each is, which is enough to store the file as unreadable.
int readStatus(int directory, FoundFile& file) {
    struct stat status {};
    if (fstatat(directory, file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        const auto size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
        file = {std::move(file.name), 0, status.st_mode, status.st_dev, status.st_ino, size};
        return 0;
    }
    const int error = errno;
    if (!isUnreadable(error) || file.mode == 0 || fstat(directory, &status) != 0) return error;
    file.device = status.st_dev;
    return 0;
}

// None if the files are more than `max`. The iterator of the standard library would end the process when memory runs
// out.
std::optional<Result<FoundFiles>> readDirectory(const std::string& path, std::size_t max) {
    const auto directory = openListed(path);
    if (!directory) return directory.error();
    FoundFiles files;
    for (errno = 0; const dirent* entry = readdir(directory->get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (files.size() == max) return std::nullopt;
        files.push_back({entry->d_name, 0, static_cast<mode_t>(DTTOIF(entry->d_type)), 0, entry->d_ino, 0});
    }
    if (errno != 0) return systemError(errno);
    for (FoundFile& file : files) file.error = readStatus(dirfd(directory->get()), file);
    std::ranges::sort(files, {}, &FoundFile::name);
    return files;
}

// With the directory itself, which needs memory even if it is empty.
std::size_t countOf(const std::optional<Result<FoundFiles>>& files) {
    return 1 + (files && *files ? (*files)->size() : 0);
}

}  // namespace

std::string pathBelow(const std::string& directory, const std::string& name) {
    return directory.ends_with('/') ? directory + name : directory + '/' + name;
}

bool DirectoryReadAhead::DepthFirst::operator()(std::string_view a, std::string_view b) const {
    const auto rank = [](char byte) { return byte == '/' ? 0 : static_cast<unsigned char>(byte); };
    return std::ranges::lexicographical_compare(a, b, {}, rank, rank);
}

DirectoryReadAhead::DirectoryReadAhead(unsigned threads) {
    try {
        while (threads_.size() < threads) threads_.emplace_back([this] { work(); });
    } catch (...) {
        stop(true);  // or the threads that did start would wait forever
        throw;
    }
}

DirectoryReadAhead::~DirectoryReadAhead() { stop(false); }

void DirectoryReadAhead::stop(bool failed) {
    const std::lock_guard lock(mutex_);
    closing_ = true;
    failed_ = failed_ || failed;
    mayBegin_.notify_all();
    finished_.notify_all();
}

Result<FoundFiles> DirectoryReadAhead::read(const std::string& path) {
    if (auto files = finish(path)) return std::move(*files);
    auto files = *readDirectory(path, std::numeric_limits<std::size_t>::max());
    const std::lock_guard lock(mutex_);
    expectBelow(path, files);
    return files;
}

// What a thread has read. None if no thread has begun to read it, or it has too many files.
std::optional<Result<FoundFiles>> DirectoryReadAhead::finish(const std::string& path) {
    std::unique_lock lock(mutex_);
    needed_.erase(path);
    const auto begun = begun_.find(path);
    if (begun == begun_.end()) return std::nullopt;
    finished_.wait(lock, [&] { return begun->second.finished || failed_; });
    // A thread sets failed_ only when memory runs out.
    if (failed_) throw std::bad_alloc();
    auto files = std::move(begun->second.files);
    filesAhead_ -= countOf(files);
    begun_.erase(begun);
    mayBegin_.notify_one();
    return files;
}

void DirectoryReadAhead::work() {
    try {
        readNeeded();
    } catch (const std::bad_alloc&) {
        stop(true);
    }
}

void DirectoryReadAhead::readNeeded() {
    std::unique_lock lock(mutex_);
    for (;;) {
        mayBegin_.wait(lock, [&] { return closing_ || mayBegin(); });
        if (closing_) return;
        const std::string path = std::move(needed_.extract(needed_.begin()).value());
        Begun& begun = begun_[path];
        if (mayBegin()) mayBegin_.notify_one();
        lock.unlock();
        auto files = readDirectory(path, maxFiles);
        lock.lock();
        if (files) expectBelow(path, *files);
        filesAhead_ += countOf(files);
        begun = {true, std::move(files)};
        finished_.notify_one();
    }
}

void DirectoryReadAhead::expectBelow(const std::string& path, const Result<FoundFiles>& files) {
    if (!files) return;
    for (const FoundFile& file : *files)
        if (S_ISDIR(file.mode) && file.error == 0 && needed_.size() < maxNeeded)
            needed_.insert(pathBelow(path, file.name));
    if (mayBegin()) mayBegin_.notify_one();
}

}  // namespace tarnwick::qvx
