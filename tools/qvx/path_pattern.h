// Patterns for the paths of entries, as they are given on the command line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnwick::qvx {

// A path matches the entry of that path. A glob (with * ? [ ]) without a slash matches names of files and directories
// at any depth, and one with a slash matches whole paths; the asterisk matches slashes, too. A path may be written as
// `qvx list` prints it, with \x0a for a byte and \\ for a backslash.
class PathPattern {
public:
    // With `anyDepth`, a path without a slash matches names like a glob.
    explicit PathPattern(const std::string& given, bool anyDepth = false);

    // `path` is that of an entry.
    [[nodiscard]] bool matches(std::string_view path) const;

    // The same for the path or for a directory above it: with a directory, all that is below it is chosen.
    [[nodiscard]] bool matchesAtOrAbove(std::string_view path) const;

    [[nodiscard]] bool isGlob() const { return !glob_.empty(); }

private:
    std::string literal_;    // as it was given
    std::string unescaped_;  // as `qvx list` prints it
    std::string glob_;       // empty if it is none
    bool matchesName_;       // and not the whole path
};

// The path in the form of an entry: without slashes at the beginning and the end.
std::string entryPath(std::string path);

}  // namespace tarnwick::qvx
