// The paths of files that were given to the writers and may not be on disk yet.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>

namespace tarnwick::qvx {

class PendingPaths {
public:
    // Whether an entry at `path` must wait for the writers: they may write files in any order, so none of them may have
    // the same path, or be a folder of the other. Also true when there are 4096 paths or 2 MiB of them, which bounds
    // the memory.
    [[nodiscard]] bool conflictWith(std::string_view path) const;

    // Adds a path for which conflictWith() was false.
    void add(std::string_view path);
    void clear();

private:
    [[nodiscard]] bool anyBelow(std::string_view path) const;
    [[nodiscard]] bool anyAbove(std::string_view path) const;

    std::set<std::string, std::less<>> paths_;
    std::size_t bytes_ = 0;   // of the paths
    std::string lastFolder_;  // folder of the path added last
};

}  // namespace tarnwick::qvx
