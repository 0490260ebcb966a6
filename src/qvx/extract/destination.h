// The directory that an extraction writes to, and access to places in it that no link can redirect.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/extract/extraction_run.h"

namespace tarnwick::qvx {

class Destination {
public:
    // `root` is an open directory, which must outlive this object, as must `run`.
    Destination(ExtractionRun& run, int root) : run_(run), root_(root) {}

    // Opens the directory that contains the last component of `path`, one component after another, never through a
    // link. The descriptor is valid until the next call. `path` has no empty, "." or ".." component. An error with the
    // code ENOTDIR means that something that is not a directory is in the way; its subject is `path`.
    Result<int> openParent(std::string_view path);

    // The same, and makes the directories that are missing.
    Result<int> makeParent(std::string_view path);

    // Keeps the directory that was opened last open beyond the next call.
    [[nodiscard]] std::shared_ptr<const void> keepOpen() const {
        return opened_.empty() ? nullptr : opened_.back().directory;
    }

    // All components but the last.
    static std::string_view parentPathOf(std::string_view path);

    // The last component.
    static std::string nameOf(std::string_view path);

private:
    using OpenDirectory = FileDescriptor (*)(ExtractionRun&, int, const std::string&);

    // A directory on the way to the one that was opened last, or that one.
    struct Opened {
        std::size_t length = 0;  // of its path, which is the beginning of path_
        std::shared_ptr<const FileDescriptor> directory;
    };

    Result<int> parent(std::string_view path, OpenDirectory openComponent);
    void keepCommon(std::string_view path);
    [[nodiscard]] int last() const { return opened_.empty() ? root_ : opened_.back().directory->get(); }

    ExtractionRun& run_;
    int root_;
    std::string path_;            // of the directory that was opened last
    std::vector<Opened> opened_;  // ascending; at most maxOpened, and the last one
};

}  // namespace tarnwick::qvx
