#include "qvx/extract/file_identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

namespace tarnwick::qvx {

namespace {

// Wraps around for a time that a hostile archive has set; equal times stay equal.
std::int64_t nanoseconds(const statx_timestamp& time) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(time.tv_sec) * 1000000000 + time.tv_nsec);
}

}  // namespace

Result<FileIdentity> identityOf(int file) {
    struct statx status {};
    if (statx(file, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return systemError(errno);
    if (!S_ISREG(status.stx_mode)) return Error{"not a regular file"};
    return FileIdentity{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino, status.stx_size,
                        nanoseconds(status.stx_mtime), nanoseconds(status.stx_btime)};
}

void encodeIdentity(const FileIdentity& identity, WireWriter& out) {
    for (const std::uint64_t number : {identity.device, identity.inode, identity.size}) out.varint(number);
    for (const std::int64_t time : {identity.modified, identity.created}) out.signedVarint(time);
}

FileIdentity decodeIdentity(WireReader& in) {
    FileIdentity identity;
    for (auto* number : {&identity.device, &identity.inode, &identity.size}) *number = in.varint();
    for (auto* time : {&identity.modified, &identity.created}) *time = in.signedVarint();
    return identity;
}

}  // namespace tarnwick::qvx
