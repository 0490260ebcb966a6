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
// extension is ".qvx". The destination is asked for afresh; one that is not found has no captures. A capture whose
// status cannot be read ends the run through raiseFatal.
std::vector<CaptureRecord> listCaptures(const RunOptions& options);

// Makes room within options.captureSizeLimit by removing the oldest captures, then copies the archive of `archiveSize`
// bytes into the store of `destination` under its own name. Returns when the capture is stored and on its disk; every
// failure ends the run. A name that is taken is not overwritten. The copy takes its name only when it is whole, so
// that no interruption leaves half a capture; the file system must support files without a name (O_TMPFILE).
void storeArchive(const RunOptions& options, const VolumeInfo& destination, const std::filesystem::path& archivePath,
                  std::uint64_t archiveSize);

}  // namespace tarnwick
