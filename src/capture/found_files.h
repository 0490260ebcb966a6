// From what `find` prints to the files that are captured.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/handle.h"
#include "volumes/consented_volumes.h"

namespace tarnwick {

using FilesList = std::vector<std::filesystem::path>;  // in the order found, duplicates kept

// The paths in the output of a search below `directory`, in order. `find` ends each path with a line feed, and a path
// may hold line feeds itself: a line that does not begin with the directory continues the path before it, and so does
// one where either of the two names nothing unless they are joined. So no name can make up a path outside of the
// directory.
std::vector<std::string> splitFoundPaths(const std::string& output, const std::filesystem::path& directory);

// Chooses which of the files found on one volume may be captured. Logs a TRACE line for each file, and an INFO line for
// each volume without consent when its first file is met.
class FoundFiles {
public:
    explicit FoundFiles(ConsentedVolumes& consented) : consented_(consented) {}

    // Appends the path to `files` unless it is on a volume without consent or on one that cannot be told, is reached
    // through a link that others can replace, or is too long for an archive. A path that names nothing any more counts
    // as being on the volume of the nearest folder that is left; if it is appended, the archive writer decides about
    // it.
    void consider(const std::string& path, FilesList& files);

private:
    void holdFolder(const std::string& path);
    std::optional<std::uint64_t> mountOf(const char* name);
    void leaveOut(const std::string& path, const std::string& reason);
    void reportVolume(const MountEntry& mount);

    ConsentedVolumes& consented_;
    std::set<dev_t> reported_;  // file systems
    // The folder of the file before, which is mostly that of the next one, too.
    std::string folderPath_;
    FileDescriptor folder_;
    int folderError_ = 0;  // of opening it, an errno value; folder_ may be one above it then
};

}  // namespace tarnwick
