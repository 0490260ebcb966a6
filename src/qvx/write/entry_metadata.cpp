#include "qvx/write/entry_metadata.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarnwick::qvx {

namespace {

// The length of all names, each with a zero byte at its end.
ssize_t listNames(const AttributeSource& source, char* names, std::size_t size) {
    return source.descriptor >= 0 ? ::flistxattr(source.descriptor, names, size)
                                  : ::llistxattr(source.path.c_str(), names, size);
}

ssize_t readValue(const AttributeSource& source, const std::string& name, char* value, std::size_t size) {
    return source.descriptor >= 0 ? ::fgetxattr(source.descriptor, name.c_str(), value, size)
                                  : ::lgetxattr(source.path.c_str(), name.c_str(), value, size);
}

std::vector<std::string> splitNames(std::string_view names) {
    std::vector<std::string> split;
    for (std::size_t at = 0; at < names.size(); at += split.back().size() + 1)
        split.emplace_back(names.substr(at, names.find('\0', at) - at));
    std::ranges::sort(split);
    split.erase(std::unique(split.begin(), split.end()), split.end());  // only a hostile file system repeats a name
    return split;
}

Status firstFailure(const Status& first, const Status& second) { return first ? second : first; }

}  // namespace

Status readStatus(int descriptor, const char* name, struct statx& status) {
    constexpr int flags = AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    if (::statx(descriptor, name, flags, STATX_BASIC_STATS | STATX_BTIME, &status) == 0) return {};
    return systemError(errno);
}

Status MetadataReader::read(const AttributeSource& source, const struct statx& status, EntryHead& head,
                            EntryTail& tail) {
    Status captured = captureFields({status, head.type, source.descriptor}, head);
    // Most files have no attributes; this one call shows it.
    const ssize_t length = listNames(source, nullptr, 0);
    if (length == 0) return captured;
    if (length < 0) return firstFailure(captured, errno == ENOTSUP || errno == ENOSYS ? Status() : systemError(errno));
    DiskAttributes attributes;
    const Status read = firstFailure(captured, readAttributes(source, attributes));
    return firstFailure(read, captureFields({status, head.type, source.descriptor, &attributes}, tail));
}

Status MetadataReader::readAttributes(const AttributeSource& source, DiskAttributes& attributes) {
    const ssize_t length = listNames(source, names_.data(), names_.size());
    if (length < 0) return systemError(errno);
    bytesLeft_ = maxAttributeBytes;
    Status first;
    for (const auto& name : splitNames({names_.data(), static_cast<std::size_t>(length)}))
        first = firstFailure(first, readAttribute(source, name, attributes));
    return first;
}

Status MetadataReader::readAttribute(const AttributeSource& source, const std::string& name,
                                     DiskAttributes& attributes) {
    const bool access = name == accessListAttribute;
    const bool defaultList = name == defaultListAttribute;
    if (name.starts_with("btrfs.")) return {};  // not an attribute, but how this file system compresses the file
    if (!access && !defaultList && !isAttributeName(name)) return systemError(E2BIG);
    // Most values are short, and the kernel clears as many bytes as it is offered.
    constexpr std::size_t shortValue = 512;
    ssize_t length = readValue(source, name, value_.data(), shortValue);
    if (length < 0 && errno == ERANGE) length = readValue(source, name, value_.data(), value_.size());
    // It is gone by now, or the file system lists it without a value.
    if (length < 0) return errno == ENODATA || errno == ENOTSUP ? Status() : systemError(errno);
    std::string value(value_.data(), static_cast<std::size_t>(length));
    if (access || defaultList) {
        (access ? attributes.accessList : attributes.defaultList) = std::move(value);
        return {};
    }
    if (name.size() + value.size() > bytesLeft_) return systemError(E2BIG);
    bytesLeft_ -= name.size() + value.size();
    attributes.extended.push_back({name, std::move(value)});
    return {};
}

}  // namespace tarnwick::qvx
