#include "platform/mount_table.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "base/handle.h"

namespace tarnwick {

namespace {

using MountTable = std::unique_ptr<libmnt_table, FreeWith<mnt_unref_table>>;
using MountIterator = std::unique_ptr<libmnt_iter, FreeWith<mnt_free_iter>>;

std::string text(const char* value) { return value ? value : ""; }

}  // namespace

std::vector<MountEntry> readMountTable(const std::filesystem::path& mountinfo) {
    std::vector<MountEntry> entries;
    // libmount decodes the octal escapes in which the kernel writes special characters of a path.
    const MountTable table(mnt_new_table_from_file(mountinfo.c_str()));
    const MountIterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
    if (!table || !iterator) return entries;
    for (libmnt_fs* fs = nullptr; mnt_table_next_fs(table.get(), iterator.get(), &fs) == 0;)
        entries.push_back({static_cast<std::uint64_t>(mnt_fs_get_id(fs)), mnt_fs_get_devno(fs),
                           text(mnt_fs_get_target(fs)), text(mnt_fs_get_source(fs)), text(mnt_fs_get_fstype(fs))});
    return entries;
}

Result<std::uint64_t> mountIdOf(int folder, const char* name) {
    struct statx status {};
    // AT_NO_AUTOMOUNT: a question about a file must not mount anything.
    if (::statx(folder, name, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0)
        return systemError(errno);
    if ((status.stx_mask & STATX_MNT_ID) == 0) return systemError(ENOSYS);  // a kernel before 5.8
    return std::uint64_t{status.stx_mnt_id};
}

}  // namespace tarnwick
