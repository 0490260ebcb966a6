#include "mounts.h"

#include <libmount/libmount.h>

#include <cerrno>
#include <map>
#include <memory>

#include "base/handle.h"

namespace tarnwick {

namespace {

using MountTable = std::unique_ptr<libmnt_table, FreeWith<mnt_unref_table>>;
using MountIterator = std::unique_ptr<libmnt_iter, FreeWith<mnt_free_iter>>;

struct Entry {
    int id = 0;
    int parent = 0;
    Mount mount;
};

std::string text(const char* value) { return value ? value : ""; }

Result<std::vector<Entry>> readEntries(const std::filesystem::path& mountinfo) {
    const MountTable table(mnt_new_table_from_file(mountinfo.c_str()));
    const MountIterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
    if (!table || !iterator) return Error{"cannot read the mounts", errno, mountinfo.native()};
    std::vector<Entry> entries;
    for (libmnt_fs* fs = nullptr; mnt_table_next_fs(table.get(), iterator.get(), &fs) == 0;) {
        entries.push_back({mnt_fs_get_id(fs),
                           mnt_fs_get_parent_id(fs),
                           {text(mnt_fs_get_target(fs)), text(mnt_fs_get_root(fs)), text(mnt_fs_get_source(fs)),
                            text(mnt_fs_get_fstype(fs)), mnt_fs_get_devno(fs)}});
    }
    return entries;
}

// Resolves paths over the mounts as the kernel does: from the root down, entering what is mounted at each step.
class PathWalk {
public:
    explicit PathWalk(const std::vector<Entry>& entries) {
        std::map<int, const Entry*> byId;
        for (const auto& entry : entries) byId[entry.id] = &entry;
        for (const auto& entry : entries) {
            const bool isOutermost = entry.parent == entry.id || !byId.contains(entry.parent);
            children_[{isOutermost ? outside_.id : entry.parent, entry.mount.target}] = &entry;
        }
    }

    [[nodiscard]] const Entry* mountAt(const std::string& path) const {
        const Entry* current = descend(&outside_, "/");
        for (std::size_t slash = 0; current && path != "/" && slash != std::string::npos;) {
            slash = path.find('/', slash + 1);
            current = descend(current, path.substr(0, slash));
        }
        return current;
    }

private:
    // The topmost of the mounts stacked on `path`. The bound ends the loop if the table contains a cycle.
    [[nodiscard]] const Entry* descend(const Entry* current, const std::string& path) const {
        for (std::size_t step = 0; step <= children_.size(); ++step) {
            const auto child = children_.find({current->id, path});
            if (child == children_.end()) return current;
            current = child->second;
        }
        return nullptr;
    }

    std::map<std::pair<int, std::string>, const Entry*> children_;  // by parent and target
    Entry outside_{-1, -1, {}};  // what the table lacks: the parent of the root, or the root itself in a chroot
};

bool isAtOrBelow(const std::string& path, const std::string& folder) {
    if (folder == "/") return path.starts_with('/');
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace

Result<std::vector<Mount>> readVisibleMounts(const std::filesystem::path& mountinfo) {
    const auto entries = readEntries(mountinfo);
    if (!entries) return entries.error();
    const PathWalk walk(*entries);
    std::vector<Mount> visible;
    for (const auto& entry : *entries)
        if (walk.mountAt(entry.mount.target) == &entry) visible.push_back(entry.mount);
    return visible;
}

const Mount* mountContaining(const std::vector<Mount>& mounts, const std::string& path) {
    const Mount* best = nullptr;
    for (const auto& mount : mounts)
        if (isAtOrBelow(path, mount.target) && (!best || mount.target.size() >= best->target.size())) best = &mount;
    return best;
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace tarnwick
