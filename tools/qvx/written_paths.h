// The paths of a tar stream so far, for the later entries that are links to them.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "qvx/extract/entry_places.h"
#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// Memory: 24 bytes for each entry. The paths themselves are in a temporary file.
class WrittenPaths {
public:
    // The entry with this number has been written, or another name of the same file. Not for directories.
    Status add(std::uint64_t number, const std::string& path);

    // The path at which a reader of the stream has this entry now: none if it was not written, or another entry has
    // replaced it.
    [[nodiscard]] std::optional<std::string> find(std::uint64_t number) const;

private:
    [[nodiscard]] std::optional<std::string> pathAt(std::optional<std::uint64_t> position) const;

    Spool spool_;
    EntryPlaces byNumber_;
    EntryPlaces byHash_;                // of the first path that has the hash
    std::set<std::uint32_t> replaced_;  // hashes of the paths that were written twice
};

}  // namespace tarnwick::qvx
