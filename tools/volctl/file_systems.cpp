#include "file_systems.h"

#include <algorithm>
#include <array>

namespace tarnwick {

namespace {

constexpr std::array fileSystems{
    FileSystem{.name = "ext3", .noReplayOption = "noload"},
    FileSystem{.name = "ext4", .noReplayOption = "noload"},
    FileSystem{.name = "xfs", .noReplayOption = "norecovery"},
    FileSystem{.name = "f2fs", .noReplayOption = "norecovery"},
    FileSystem{.name = "nilfs2", .noReplayOption = "norecovery"},
    FileSystem{.name = "btrfs", .noReplayOption = "rescue=nologreplay", .spansDevices = true},
    FileSystem{.name = "reiserfs", .noReplayOption = "nolog"},
    FileSystem{.name = "vfat", .allowsColons = false},
    FileSystem{.name = "msdos", .allowsColons = false},
    FileSystem{.name = "fat", .allowsColons = false},
    FileSystem{.name = "umsdos", .allowsColons = false},
    FileSystem{.name = "exfat", .allowsColons = false},
    FileSystem{.name = "ntfs", .driver = "ntfs3", .allowsColons = false},
    FileSystem{.name = "ntfs3", .allowsColons = false},
    FileSystem{.name = "fuseblk", .allowsColons = false, .isAnyFormat = true},  // in practice exFAT or NTFS
    FileSystem{.name = "squashfs", .isImage = true},
    FileSystem{.name = "erofs", .isImage = true},
    FileSystem{.name = "cramfs", .isImage = true},
    FileSystem{.name = "romfs", .isImage = true},
    FileSystem{.name = "iso9660", .isImage = true},
    FileSystem{.name = "swap", .usage = Usage::swap},
    FileSystem{.name = "swsuspend", .usage = Usage::swap},
    FileSystem{.name = "zfs_member", .usage = Usage::poolMember},
};

}  // namespace

FileSystem fileSystem(std::string_view name) {
    const auto* row =
        std::find_if(fileSystems.begin(), fileSystems.end(), [&](const FileSystem& each) { return each.name == name; });
    return row == fileSystems.end() ? FileSystem{.name = name} : *row;
}

}  // namespace tarnwick
