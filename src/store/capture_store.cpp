#include "store/capture_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <numeric>
#include <string_view>
#include <utility>

#include "base/directory_walk.h"
#include "base/fatal_error.h"
#include "base/file_reading.h"
#include "base/handle.h"
#include "base/quoted_path.h"
#include "base/random_name.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view hiddenPrefix = ".tarnwick-";  // then 16 hexadecimal digits

fs::path storeFolder(const VolumeInfo& destination) { return fs::path(destination.mountPoint) / "tarnwick"; }

bool isCaptureName(const fs::path& path) {
    return path.extension() == ".qvx" && path.filename().native().starts_with("tarnwick");
}

CaptureRecord readRecord(const fs::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) raiseFatal("stat returned an unexpected error");
    return {static_cast<std::uint64_t>(status.st_ctim.tv_sec), static_cast<std::uint64_t>(status.st_size), path};
}

std::uint64_t totalSize(const std::vector<CaptureRecord>& captures) {
    return std::accumulate(captures.begin(), captures.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const CaptureRecord& capture) { return sum + capture.size; });
}

void pruneOldest(const std::vector<CaptureRecord>& captures, std::uint64_t archiveSize, std::uint64_t limit) {
    std::uint64_t total = totalSize(captures);
    if (captures.empty() || archiveSize + total <= limit) return;
    logWarning("total captured data size exceeds limit, pruning old data...");
    for (const auto& capture : captures) {
        logWarning("pruning " + capture.path);
        if (!fs::remove(capture.path)) logWarning("error when pruning " + capture.path);
        total -= capture.size;
        if (archiveSize + total <= limit) return;
    }
}

bool copyBytes(int source, int target) {
    for (;;) {
        // At most 1 GiB a call: the kernel copies no more than 2 GiB at once.
        const auto count = ::sendfile(target, source, nullptr, std::size_t{1} << 30);
        if (count == 0) return true;
        if (count < 0 && errno != EINTR) return false;
    }
}

std::string newHiddenName() { return std::string(hiddenPrefix) + randomDigits(); }

bool isHiddenName(const std::string& name) {
    return name.starts_with(hiddenPrefix) && name.size() == hiddenPrefix.size() + 16 &&
           name.find_first_not_of("0123456789abcdef", hiddenPrefix.size()) == std::string::npos;
}

// A run locks the hidden file that it writes.
void removeIfAbandoned(const fs::path& path) {
    const auto file = openRegularFile(path, O_RDWR | O_NOFOLLOW);
    struct stat status {};
    if (!file || ::fstat(file->get(), &status) != 0 || status.st_uid != ::geteuid()) return;
    if (::flock(file->get(), LOCK_EX | LOCK_NB) == 0) ::unlink(path.c_str());
}

// A run that was killed leaves its hidden file, which would use space forever.
void removeAbandonedCopies(const fs::path& folder) {
    for (const auto& path : listDirectory(folder, false, false))
        if (isHiddenName(path.filename())) removeIfAbandoned(path);
}

// A copy that is not complete. It has no name, or a hidden one on file systems that need one.
struct UnfinishedCopy {
    FileDescriptor file;
    std::string hiddenName;  // empty: none
};

// Another run may remove the file before it is locked here; then its name is gone.
UnfinishedCopy createHidden(int folder) {
    UnfinishedCopy copy;
    do {
        copy.hiddenName = newHiddenName();
        const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        copy.file = FileDescriptor(::openat(folder, copy.hiddenName.c_str(), flags, 0600));
        if (!copy.file) return {};
        ::flock(copy.file.get(), LOCK_EX);
    } while (::faccessat(folder, copy.hiddenName.c_str(), F_OK, 0) != 0 && errno == ENOENT);
    return copy;
}

UnfinishedCopy createCopy(int folder) {
    FileDescriptor nameless(::openat(folder, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (!nameless) return createHidden(folder);
    return {std::move(nameless), {}};
}

bool completeCopy(int source, int copy) {
    return copyBytes(source, copy) && ::fchmod(copy, 0644) == 0 && ::fsync(copy) == 0;
}

// Not every file system can rename without replacing. A hard link does not replace either.
bool renameHidden(int folder, const char* hidden, const char* name) {
    if (::renameat2(folder, hidden, folder, name, RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL || ::linkat(folder, hidden, folder, name, 0) != 0) return false;
    ::unlinkat(folder, hidden, 0);
    return true;
}

// Fails when a file of that name exists.
bool linkUnderName(int folder, const UnfinishedCopy& copy, const char* name) {
    if (!copy.hiddenName.empty()) return renameHidden(folder, copy.hiddenName.c_str(), name);
    const std::string nameless = "/proc/self/fd/" + std::to_string(copy.file.get());
    return ::linkat(AT_FDCWD, nameless.c_str(), folder, name, AT_SYMLINK_FOLLOW) == 0;
}

bool placeCopy(int source, int folder, const char* name) {
    const UnfinishedCopy copy = createCopy(folder);
    if (!copy.file) return false;
    if (completeCopy(source, copy.file.get()) && linkUnderName(folder, copy, name)) return ::fsync(folder) == 0;
    if (!copy.hiddenName.empty()) ::unlinkat(folder, copy.hiddenName.c_str(), 0);
    return false;
}

// The copy gets its name when it is complete and synced, so no capture in the store is incomplete.
bool copyIntoPlace(const fs::path& archive, const fs::path& target) {
    const FileDescriptor source(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const FileDescriptor folder(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return source && folder && placeCopy(source.get(), folder.get(), target.filename().c_str());
}

}  // namespace

std::vector<CaptureRecord> listCaptures(const RunOptions& options) {
    std::vector<CaptureRecord> captures;
    VolumeInfo destination;
    if (!queryVolumeInfo(options.destinationVolume, destination)) return captures;
    for (const auto& path : listDirectory(storeFolder(destination), false, false))
        if (isCaptureName(path)) captures.push_back(readRecord(path));
    std::sort(captures.begin(), captures.end(),
              [](const auto& a, const auto& b) { return a.changeTime < b.changeTime; });
    return captures;
}

void storeArchive(const RunOptions& options, const VolumeInfo& destination, const fs::path& archivePath,
                  std::uint64_t archiveSize) {
    pruneOldest(listCaptures(options), archiveSize, options.captureSizeLimit);
    // Listed again, because pruning subtracts the size of a capture even when it had already vanished.
    if (archiveSize + totalSize(listCaptures(options)) > options.captureSizeLimit)
        raiseFatal("insufficient space on output volume for captured data");
    const fs::path folder = storeFolder(destination);
    fs::create_directories(folder);
    removeAbandonedCopies(folder);
    const fs::path target = folder / archivePath.filename();
    if (!copyIntoPlace(archivePath, target)) raiseFatal("an error occurred when copying archive to final destination");
    logInfo("final archive copied to " + quotedPath(target));
}

}  // namespace tarnwick
