// The files that go into an archive, as the user names them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive_output.h"
#include "base/error.h"
#include "directory_read_ahead.h"
#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

// Lists files, and reports each one that it leaves out. The subject of an error is the path of a file.
class Collection {
public:
    // `working` is the working directory. A strict collection fails at the first file that cannot be read.
    Collection(const ArchiveOutput& output, std::string working, bool strict)
        : output_(output), working_(std::move(working)), strict_(strict) {}

    // Adds the path; addTree() also adds everything below it, in order of names. Files of a kind that an archive cannot
    // contain are left out there, and so is the archive that is going to be replaced.
    Status add(const std::string& path);
    Status addTree(const std::string& path, DirectoryReadAhead& ahead);

    [[nodiscard]] const PathList& list() const { return list_; }
    // The sizes of all contents; none if they are not known.
    [[nodiscard]] std::optional<std::uint64_t> contentSize() const { return contentSize_; }
    [[nodiscard]] bool complete() const { return complete_; }  // nothing is missing that could not be read

private:
    // A path as it is listed, and as the user would write it.
    struct Place {
        [[nodiscard]] Place below(const std::string& name) const;
        std::string listed;
        std::string shown;
    };

    Result<std::optional<PathList::Entry>> addNamed(const std::string& path);
    Status addBelow(const Place& directory, DirectoryReadAhead& ahead);
    Status addFound(const FoundFile& found, const Place& place, DirectoryReadAhead& ahead);
    void addSize(std::uint64_t size);
    Status leaveOut(const Error& error, std::string_view what = "left out");

    const ArchiveOutput& output_;
    std::string working_;
    bool strict_;
    PathList list_;
    std::optional<std::uint64_t> contentSize_ = 0;
    bool complete_ = true;
};

}  // namespace tarnwick::qvx
