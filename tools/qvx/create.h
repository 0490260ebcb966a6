// Making an archive.
#pragma once

#include <string>
#include <vector>

namespace tarnwick::qvx {

struct CreateOptions {
    std::string recipient;
    std::string output;
    std::string namesFrom;  // a file of names that end with a zero byte, "-" for standard input, empty for none
    std::vector<std::string> paths;
};

enum class Creation { complete, incomplete, failed };

// Directories among the paths are taken with everything in them; names from a file are taken as they are. What
// cannot be read is reported, and makes the archive incomplete. Failure is reported, too; then nothing is left of the
// archive, and a file that stood there is gone only if it was written to.
Creation createArchive(const CreateOptions& options);

}  // namespace tarnwick::qvx
