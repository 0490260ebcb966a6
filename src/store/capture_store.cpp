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
#include "base/pending_file.h"
#include "base/quoted_path.h"
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

bool isHiddenName(const std::string& name) {
    return name.starts_with(hiddenPrefix) && name.size() == hiddenPrefix.size() + 16 &&
           name.find_first_not_of("0123456789abcdef", hiddenPrefix.size()) == std::string::npos;
}

// PendingFile locks a hidden file that is being written.
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

bool completeCopy(int source, int copy) {
    return copyBytes(source, copy) && ::fchmod(copy, 0644) == 0 && ::fsync(copy) == 0;
}

// Fails when a file of that name exists.
bool placeCopy(int source, int folder, const std::string& name) {
    auto copy = PendingFile::create(folder, hiddenPrefix);
    return copy && completeCopy(source, copy->descriptor()) && copy->place(name) && ::fsync(folder) == 0;
}

// The copy gets its name when it is complete and synced, so no capture in the store is incomplete.
bool copyIntoPlace(const fs::path& archive, const fs::path& target) {
    const FileDescriptor source(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const FileDescriptor folder(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return source && folder && placeCopy(source.get(), folder.get(), target.filename());
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
