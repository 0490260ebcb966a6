// Shows the entries of an archive as a file system of the kernel, until it is unmounted.
#pragma once

#include <memory>
#include <string>

#include "base/error.h"
#include "base/handle.h"
#include "entry_tree.h"
#include "qvx/read/entry_content.h"

struct fuse_session;

namespace tarnwick::qvx {

struct MountedEntries {
    const EntryTree& tree;
    EntryContents& contents;
};

class FuseMount {
public:
    // Mounts on the folder: read-only, for this user only, without set-id bits, devices and execution. `source` is what
    // the table of mounts shows as the device. The entries must outlive the mount. From this call on, SIGINT, SIGTERM
    // and SIGHUP are recorded and end serve(), which must be called by the same thread. Only one mount at a time.
    static Result<std::unique_ptr<FuseMount>> mount(const std::string& folder, const std::string& source,
                                                    MountedEntries entries);
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;
    ~FuseMount();  // unmounts

    // Answers the kernel in several threads until somebody unmounts the file system or a signal comes. Reports what
    // cannot be read.
    Status serve();

private:
    explicit FuseMount(MountedEntries entries) : entries_(entries) {}
    Status open(const std::string& folder, const std::string& source);

    MountedEntries entries_;
    fuse_session* session_ = nullptr;
};

}  // namespace tarnwick::qvx
