#include "app/capture_store.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>

#include "base/directory_walk.h"
#include "base/fatal_error.h"
#include "base/handle.h"
#include "base/quoted_path.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

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
        const auto count = ::sendfile(target, source, nullptr, std::size_t{1} << 30);
        if (count == 0) return true;
        if (count < 0 && errno != EINTR) return false;
    }
}

// The copy has no name until it is whole and on the disk: what is interrupted before vanishes by itself. Giving the
// name fails when it is taken.
bool copyIntoPlace(const fs::path& archive, const fs::path& target) {
    const FileDescriptor source(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const FileDescriptor folder(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!source || !folder) return false;
    const FileDescriptor copy(::openat(folder.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (!copy || !copyBytes(source.get(), copy.get())) return false;
    if (::fchmod(copy.get(), 0644) != 0 || ::fsync(copy.get()) != 0) return false;
    const std::string nameless = "/proc/self/fd/" + std::to_string(copy.get());
    if (::linkat(AT_FDCWD, nameless.c_str(), folder.get(), target.filename().c_str(), AT_SYMLINK_FOLLOW) != 0)
        return false;
    return ::fsync(folder.get()) == 0;
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
    // Listed again: pruning counts a capture as gone whether or not it was still there.
    if (archiveSize + totalSize(listCaptures(options)) > options.captureSizeLimit)
        raiseFatal("insufficient space on output volume for captured data");
    const fs::path folder = storeFolder(destination);
    fs::create_directories(folder);
    const fs::path target = folder / archivePath.filename();
    if (!copyIntoPlace(archivePath, target)) raiseFatal("an error occurred when copying archive to final destination");
    logInfo("final archive copied to " + quotedPath(target));
}

}  // namespace tarnwick
