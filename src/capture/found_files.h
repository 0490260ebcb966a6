// Turns the output of `find` into the list of files that are captured.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/handle.h"
#include "volumes/consented_volumes.h"

namespace tarnwick {

// In the order found, duplicates kept. Texts, because a std::filesystem::path needs five times the memory.
using FilesList = std::vector<std::string>;

// Calls `use` with each path in the output of a search below `directory`, in order. `find` ends each path with a line
// feed, and a path may contain line feeds. A line that does not begin with the directory continues the previous path.
// If a line, or the path before it, names no existing file, the line is joined to one or more of the paths before it,
// provided that the joined path names an existing file. So no file name can produce a path outside of the directory.
void forEachFoundPath(std::string_view output, const std::filesystem::path& directory,
                      const std::function<void(std::string)>& use);

// Decides which of the files found on one volume are captured. Logs a TRACE line for each file. At the first file of a
// volume without consent, also logs an INFO line.
class FoundFiles {
public:
    explicit FoundFiles(ConsentedVolumes& consented) : consented_(consented) {}

    // Appends the path to `files`. Skips a path that is too long for an archive, that leads through a link that others
    // can replace, or whose volume has no consent or cannot be determined. A path that no longer exists counts as being
    // on the volume of the nearest folder that exists. If such a path is appended, the archive writer decides what to
    // do with it.
    void appendIfAllowed(std::string path, FilesList& files);

private:
    void openFolder(const std::string& path);
    Result<std::uint64_t> mountOf(const char* name);
    void logSkipped(const std::string& path, const std::string& reason);
    void reportVolume(const MountEntry& mount);

    ConsentedVolumes& consented_;
    std::set<dev_t> reported_;  // file systems without consent that have an INFO line
    // The folder of the previous file. The next file is usually in the same folder.
    std::string folderPath_;
    FileDescriptor folder_;
    std::optional<Error> folderError_;  // of opening folderPath_; folder_ may then be a folder above it
};

}  // namespace tarnwick
