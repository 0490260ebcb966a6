// The directory that an extraction goes to, and the way to places in it that no link can bend.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/handle.h"

namespace tarnwick::qvx {

class Destination {
public:
    // An open directory, which must outlive this.
    explicit Destination(int root) : root_(root) {}

    // The directory in which the last component of `path` stands; valid until the next call. Components are opened one
    // after the other, never through a link; with `create`, missing ones are made. -1 with errno otherwise: ELOOP and
    // ENOTDIR tell that something else than a directory is in the way. `path` has no empty, "." or ".." component.
    int parentOf(std::string_view path, bool create);

    // What holds the directory that parentOf() gave open, beyond the next call.
    [[nodiscard]] std::shared_ptr<const void> holder() const { return parent_; }

    // All but the last component.
    static std::string_view parentPathOf(std::string_view path);

    // The last component.
    static std::string nameOf(std::string_view path);

private:
    int root_;
    std::shared_ptr<const FileDescriptor> parent_;
    std::string parentPath_;
};

}  // namespace tarnwick::qvx
