#include "base/directory_walk.h"

#include <cerrno>

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

void appendSubtree(std::vector<fs::path>& found, const fs::path& directory, bool includeDirectories) {
    try {
        const auto below = listDirectory(directory, true, includeDirectories);
        found.insert(found.end(), below.begin(), below.end());
    } catch (const fs::filesystem_error& error) {
        if (error.code().value() != EPERM) throw;
    }
}

}  // namespace

std::vector<fs::path> listDirectory(const fs::path& directory, bool recurse, bool includeDirectories) {
    std::vector<fs::path> found;
    if (!fs::is_directory(directory)) return found;
    for (const auto& entry : fs::directory_iterator(directory, fs::directory_options::skip_permission_denied)) {
        const auto status = fs::status(entry.path());
        if (fs::is_regular_file(status)) {
            found.push_back(entry.path());
        } else if (fs::is_directory(status)) {
            if (includeDirectories) found.push_back(entry.path());
            if (recurse) appendSubtree(found, entry.path(), includeDirectories);
        }
    }
    return found;
}

}  // namespace tarnwick
