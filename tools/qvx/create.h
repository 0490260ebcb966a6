// Creates an archive.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"

namespace tarnwick::qvx {

struct CreateOptions {
    std::vector<std::string> recipients;  // key lines or files
    std::string output;
    std::string namesFrom;  // a file of names that end with a zero byte, "-" for standard input, empty for none
    std::vector<std::string> paths;
    bool strict = false;  // a file that cannot be read is a failure
};

enum class Creation { complete, incomplete };

// Directories among the paths are archived with everything in them; names from a file are archived without. Files that
// cannot be read are reported and make the archive incomplete. The output is written or replaced only when the archive
// is complete and on the disk; on failure it stays as it was.
Result<Creation> createArchive(const CreateOptions& options);

}  // namespace tarnwick::qvx
