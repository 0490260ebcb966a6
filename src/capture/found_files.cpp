#include "capture/found_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "base/guarded_open.h"
#include "base/visible_text.h"
#include "log/execution_log.h"
#include "qvx/format/format.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t maxPathLength = qvx::maxPathLength + 1;  // archives omit the slash at the beginning
constexpr std::size_t maxJoinedLines = 64;                     // limits the work that planted names can cause

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

// Tries to join `path` to the last path, to the last two, and so on, until the joined path names an existing file.
// Removes the paths that were joined. If the name of a directory ends with a line feed, and folders in it have the
// names of those above it, the rest of a path looks like a separate path.
void joinWithLast(std::deque<std::string>& paths, std::string& path) {
    std::string whole = path;
    for (std::size_t first = paths.size(); first-- > 0 && whole.size() <= maxPathLength;) {
        whole.insert(0, paths[first] + '\n');
        if (!exists(whole)) continue;
        paths.resize(first);
        path = std::move(whole);
        return;
    }
}

// The first line of the output and those after it that do not begin another path. `separator` is a line feed and the
// beginning of a path.
std::string_view firstPathIn(std::string_view output, std::string_view separator) {
    const auto end = output.find(separator);
    if (end != std::string_view::npos) return output.substr(0, end);
    return output.substr(0, output.size() - (output.ends_with('\n') ? 1 : 0));
}

}  // namespace

// Each path is used soon after it is checked, when the kernel still has its name in the cache. The last ones are kept,
// because they may be joined.
void forEachFoundPath(std::string_view output, const fs::path& directory, const std::function<void(std::string)>& use) {
    const std::string separator = "\n" + (directory / "").native();
    std::deque<std::string> last;
    bool lastExists = true;
    while (!output.empty()) {
        std::string path(firstPathIn(output, separator));
        output.remove_prefix(std::min(path.size() + 1, output.size()));
        const bool alone = exists(path);
        if (!alone || !lastExists) joinWithLast(last, path);
        lastExists = alone || exists(path);
        last.push_back(std::move(path));
        if (last.size() <= maxJoinedLines) continue;
        use(std::move(last.front()));
        last.pop_front();
    }
    for (auto& path : last) use(std::move(path));
}

void FoundFiles::appendIfAllowed(std::string path, FilesList& files) {
    if (path.size() > maxPathLength) return logSkipped(path, "the path is too long");
    const std::size_t nameAt = path.rfind('/') + 1;
    if (path.compare(0, nameAt, folderPath_) != 0 || nameAt == 0) openFolder(path.substr(0, nameAt));
    if (!folder_)
        return logSkipped(
            path, folderError_->code == ELOOP ? "reached through a link that others can replace" : folderError_->text);
    const auto mountId = mountOf(path.c_str() + nameAt);
    if (!mountId) return logSkipped(path, "its volume is not known: " + mountId.error().text);
    if (!consented_.allows(*mountId)) {
        const auto mount = consented_.describe(*mountId);
        if (reported_.insert(mount.fileSystem).second) reportVolume(mount);
        return logSkipped(path, "no consent for '" + visibleText(mount.target) + "'");
    }
    logTrace("capturing: " + path);
    files.push_back(std::move(path));
}

// When the folder is gone, opens the nearest one above it that exists.
void FoundFiles::openFolder(const std::string& path) {
    folderPath_ = path;
    folderError_.reset();
    folder_ = FileDescriptor();
    for (fs::path nearest = path;; nearest = nearest.parent_path()) {
        auto opened = openDirectoryGuarded(nearest);
        if (opened) folder_ = std::move(*opened);
        if (opened) return;
        folderError_ = opened.error();
        const bool isMissing = folderError_->code == ENOENT || folderError_->code == ENOTDIR;
        if (!isMissing || nearest == nearest.parent_path()) return;
    }
}

// A log that is being rotated is missing for a moment. Its folder is on the same volume.
Result<std::uint64_t> FoundFiles::mountOf(const char* name) {
    if (!folderError_)
        if (auto ofFile = mountIdOf(folder_.get(), name)) return ofFile;
    return mountIdOf(folder_.get(), "");
}

void FoundFiles::logSkipped(const std::string& path, const std::string& reason) {
    logTrace("not captured: " + visibleText(path) + " (" + reason + ")");
}

void FoundFiles::reportVolume(const MountEntry& mount) {
    logInfo("leaving out the files on '" + visibleText(mount.target) + "' (" + visibleText(mount.source) +
            "): no consent was given for this volume");
}

}  // namespace tarnwick
