#include "qvx/extract/inode_flags.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

struct InodeFlag {
    unsigned bit;
    char letter;  // of chattr(1)
    const char* name;
};

// What a user can set on one file system or another. FS_FL_USER_MODIFIABLE lacks the newer ones. The last two forbid
// changes, also of other flags.
constexpr InodeFlag inodeFlags[] = {
    {FS_SECRM_FL, 's', "secure deletion"},
    {FS_UNRM_FL, 'u', "undeletable"},
    {FS_COMPR_FL, 'c', "compressed"},
    {FS_SYNC_FL, 'S', "synchronous updates"},
    {FS_NODUMP_FL, 'd', "no dump"},
    {FS_NOATIME_FL, 'A', "no access times"},
    {FS_NOCOMP_FL, 'm', "not compressed"},
    {FS_JOURNAL_DATA_FL, 'j', "data in the journal"},
    {FS_NOTAIL_FL, 't', "no tail merging"},
    {FS_DIRSYNC_FL, 'D', "synchronous directory"},
    {FS_TOPDIR_FL, 'T', "top of a hierarchy"},
    {FS_NOCOW_FL, 'C', "no copy on write"},
    {FS_DAX_FL, 'x', "direct access"},
    {FS_PROJINHERIT_FL, 'P', "inherited project"},
    {FS_CASEFOLD_FL, 'F', "case is ignored"},
    {FS_APPEND_FL, 'a', "append only"},
    {FS_IMMUTABLE_FL, 'i', "immutable"},
};

constexpr unsigned modifiable() {
    unsigned bits = 0;
    for (const auto& flag : inodeFlags) bits |= flag.bit;
    return bits;
}
static_assert((modifiable() & FS_FL_USER_MODIFIABLE) == FS_FL_USER_MODIFIABLE);

// One at a time, because a file system that does not know one of several flags sets none. Some ignore a flag without an
// error, so it is read back. The kernel's argument is an int, although the number of the call says long.
int addFlag(int file, unsigned bit) {
    unsigned flags = 0;
    if (ioctl(file, FS_IOC_GETFLAGS, &flags) != 0) return errno;
    if (flags & bit) return 0;
    flags |= bit;
    if (ioctl(file, FS_IOC_SETFLAGS, &flags) != 0 || ioctl(file, FS_IOC_GETFLAGS, &flags) != 0) return errno;
    return flags & bit ? 0 : EOPNOTSUPP;
}

}  // namespace

bool hasInodeFlags(const EntryHead& head) {
    return head.type != EntryType::link && head.flags.value_or(0) & modifiable();
}

void restoreInodeFlags(ExtractionRun& run, const EntryHead& head, int file) {
    const std::string place = "/proc/self/fd/" + std::to_string(file);  // ioctl() refuses O_PATH
    const FileDescriptor open(::open(place.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int openError = open ? 0 : errno;
    for (const auto& flag : inodeFlags) {
        if (!(*head.flags & flag.bit)) continue;
        const int error = open ? addFlag(open.get(), flag.bit) : openError;
        if (error != 0)
            run.fail({std::string("the flag ") + flag.letter + " (" + flag.name +
                          ") could not be set: " + std::strerror(error),
                      error, head.path});
    }
}

}  // namespace tarnwick::qvx
