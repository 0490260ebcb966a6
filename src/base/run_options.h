// The options of a run. One instance, owned by main.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace tarnwick {

struct RunOptions {
    std::string destinationVolume = "Preboot";    // identifier that volctl understands
    std::filesystem::path captureSpecPath;        // empty: the configuration built into the executable
    bool nonInteractive = false;                  // no prompt for one-time consent
    bool skipEncrypted = false;                   // set together with nonInteractive; nothing reads it
    bool force = false;                           // consent counts as granted on every volume (internal builds)
    std::uint64_t captureSizeLimit = 1073741824;  // bytes in the capture store, the new archive included
};

}  // namespace tarnwick
