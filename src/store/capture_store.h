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
// extension is ".qvx". The destination is queried each time; if it is not found there are no captures. A capture whose
// status cannot be read ends the run through raiseFatal.
std::vector<CaptureRecord> listCaptures(const RunOptions& options);

// Makes room within options.captureSizeLimit by removing the oldest captures, then copies the archive of `archiveSize`
// bytes to the store of `destination` under its own name. Returns when the capture is complete in the store and synced;
// every failure ends the run. An existing file is not overwritten. Until the copy is complete it has no name, so that
// nothing remains of it when the run is killed. Where the file system has no unnamed files (O_TMPFILE), it has a hidden
// name instead, and the next call removes it.
void storeArchive(const RunOptions& options, const VolumeInfo& destination, const std::filesystem::path& archivePath,
                  std::uint64_t archiveSize);

}  // namespace tarnwick
