// The capture store: the folder "tarnwick" at the root of the destination volume, where finished archives are kept.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/run_options.h"
#include "volumes/volume_info.h"

namespace tarnwick {

struct CaptureRecord {
    std::uint64_t changeTime = 0;  // seconds, st_ctime: the capture's age
    std::uint64_t size = 0;        // bytes
    std::string path;
};

// The captures in the store, oldest first: regular files, links followed, whose name begins with "tarnwick" and whose
// extension is ".qvx". Queries the destination on each call. If it is not found, the list is empty. A capture
// whose status cannot be read ends the run through raiseFatal.
std::vector<CaptureRecord> listCaptures(const RunOptions& options);

// Removes the oldest captures until the new one fits in options.captureSizeLimit (all, if it is too large), then copies
// the archive of `archiveSize` bytes to the store of `destination` under the same name. Returns when the capture is
// complete in the store and synced; every failure ends the run. Does not overwrite an existing file. Until the copy is
// complete it has no name, so nothing remains of it if the run is killed. On a file system without unnamed files
// (O_TMPFILE) it has a hidden name; the next call removes a copy that a killed run has left.
void storeArchive(const RunOptions& options, const VolumeInfo& destination, const std::filesystem::path& archivePath,
                  std::uint64_t archiveSize);

}  // namespace tarnwick
