// The directory that an extraction writes to, and access to places in it that no link can redirect.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/handle.h"

namespace tarnwick::qvx {

class Destination {
public:
    // `root` is an open directory, which must outlive this object.
    explicit Destination(int root) : root_(root) {}

    // Opens the directory that contains the last component of `path`; valid until the next call. Opens one component
    // after another, never through a link; with `create`, missing ones are made. -1 with errno on failure: ELOOP and
    // ENOTDIR mean that something that is not a directory is in the way. `path` has no empty, "." or ".." component.
    int parentOf(std::string_view path, bool create);

    // Keeps the directory from parentOf() open beyond the next call.
    [[nodiscard]] std::shared_ptr<const void> holder() const { return parent_; }

    // All components but the last.
    static std::string_view parentPathOf(std::string_view path);

    // The last component.
    static std::string nameOf(std::string_view path);

private:
    int root_;
    std::shared_ptr<const FileDescriptor> parent_;
    std::string parentPath_;
};

}  // namespace tarnwick::qvx
