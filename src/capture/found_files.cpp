#include "capture/found_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <sstream>

#include "base/guarded_open.h"
#include "log/execution_log.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t maxJoinedLines = 64;  // bounds the work that planted names can make

bool namesSomething(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string joined(const std::vector<std::string>& paths, std::size_t first, const std::string& line) {
    std::string path;
    for (std::size_t at = first; at < paths.size(); ++at) path += paths[at] + '\n';
    return path + line;
}

// The number of the path that `line` continues. A directory whose name ends with a line feed may hold folders named
// like those above it, so that the rest of a path looks like a path of its own.
std::optional<std::size_t> continuedPath(const std::vector<std::string>& paths, const std::string& line) {
    const std::size_t last = paths.size() - std::min(paths.size(), maxJoinedLines);
    for (std::size_t first = paths.size(); first-- > last;)
        if (namesSomething(joined(paths, first, line))) return first;
    return std::nullopt;
}

}  // namespace

std::vector<std::string> splitFoundPaths(const std::string& output, const fs::path& directory) {
    const std::string prefix = directory / "";
    std::vector<std::string> paths;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (!paths.empty() && !line.starts_with(prefix)) {
            paths.back() += '\n' + line;
            continue;
        }
        const auto first = namesSomething(line) ? std::nullopt : continuedPath(paths, line);
        auto path = first ? joined(paths, *first, line) : line;
        paths.resize(first.value_or(paths.size()));
        paths.push_back(std::move(path));
    }
    return paths;
}

void FoundFiles::consider(const std::string& path, FilesList& files) {
    const std::size_t nameAt = path.rfind('/') + 1;
    if (path.compare(0, nameAt, folderPath_) != 0 || nameAt == 0) {
        folderPath_ = path.substr(0, nameAt);
        folder_ = openDirectoryGuarded(folderPath_);
        folderError_ = folder_ ? 0 : errno;
    }
    if (folderError_ == ELOOP) return leaveOut(path, "reached through a link of another user");
    const auto mountId = folder_ ? mountIdOf(folder_.get(), path.c_str() + nameAt) : std::nullopt;
    if (mountId && !consented_.allows(*mountId)) {
        const auto mount = consented_.describe(*mountId);
        if (reported_.insert(mount.fileSystem).second) reportVolume(mount);
        return leaveOut(path, "no consent for '" + mount.target + "'");
    }
    logTrace("capturing: " + path);
    files.emplace_back(path);
}

void FoundFiles::leaveOut(const std::string& path, const std::string& reason) {
    logTrace("not captured: " + path + " (" + reason + ")");
}

void FoundFiles::reportVolume(const MountEntry& mount) {
    logInfo("leaving out the files on '" + mount.target + "' (" + mount.source +
            "): no consent was given for this volume");
}

}  // namespace tarnwick
