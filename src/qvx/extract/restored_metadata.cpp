#include "qvx/extract/restored_metadata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/visible_text.h"
#include "qvx/extract/inode_flags.h"
#include "qvx/format/access_list.h"
#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1000000000;
constexpr mode_t setIdBits = S_ISUID | S_ISGID;
constexpr mode_t specialBits = setIdBits | S_ISVTX;

timespec timeOf(std::int64_t nanoseconds) {
    std::int64_t seconds = nanoseconds / nanosecondsPerSecond;
    std::int64_t rest = nanoseconds % nanosecondsPerSecond;
    if (rest < 0) {
        rest += nanosecondsPerSecond;
        --seconds;
    }
    return {seconds, rest};
}

// As the kernel applies it to a list. Without this, a list would give the rights that the umask withholds.
AccessList withoutBits(AccessList list, mode_t umask) {
    using Kind = AccessRule::Kind;
    const auto allowed = [&](int shift) { return static_cast<std::uint8_t>(~(umask >> shift) & 7U); };
    const auto isMask = [](const AccessRule& rule) { return rule.kind == Kind::mask; };
    const Kind groupClass = std::ranges::any_of(list, isMask) ? Kind::mask : Kind::owningGroup;
    for (auto& rule : list) {
        if (rule.kind == Kind::owner) rule.permissions &= allowed(6);
        if (rule.kind == groupClass) rule.permissions &= allowed(3);
        if (rule.kind == Kind::others) rule.permissions &= allowed(0);
    }
    return list;
}

// Of one open file.
class MetadataWriter {
public:
    MetadataWriter(ExtractionRun& run, const EntryHead& head, int file) : run_(run), head_(head), file_(file) {}

    void setOwner() {
        const uid_t user = head_.userId.value_or(run_.user());
        const gid_t group = head_.groupId.value_or(run_.group());
        if (!run_.preserves()) {
            if (user != run_.user() || group != run_.group()) run_.leaveOut(Privilege::owner);
        } else if (fchownat(file_, "", user, group, AT_EMPTY_PATH) != 0) {
            warn(errno, "owner");
        } else {
            hasOwner_ = head_.userId && head_.groupId;
        }
    }

    void setMode() {
        mode_t mode = restoredMode(run_, head_);
        if (head_.mode && !run_.preserves() && *head_.mode & specialBits) run_.leaveOut(Privilege::specialBits);
        // A program must not get the rights of another user than the archive says.
        if (mode & setIdBits && !hasOwner_) {
            mode &= ~setIdBits;
            warn(EPERM, "set-id bits");
        }
        if (!hasMode(mode) && !change(fchmod, chmod, mode)) warn(errno, "mode");
    }

    // A list that is not in the archive was inherited from the directory, and might allow more than the mode.
    void setList(const AccessList& list, const char* attribute) {
        if (list.empty()) return removeList(attribute);
        if (!set(attribute, kernelAccessList(withoutBits(list, run_.umask())))) warn(errno, "access control list");
    }

    void setAttribute(const ExtendedAttribute& attribute) {
        if (!run_.preserves() && !attribute.name.starts_with("user.")) return run_.leaveOut(Privilege::attribute);
        if (!set(attribute.name.c_str(), attribute.value)) warn(errno, "extended attribute ", attribute.name);
    }

    void setTime() {
        if (!head_.modified) return;
        const timespec times[] = {{0, UTIME_OMIT}, timeOf(*head_.modified)};
        const int set = isOpen() ? futimens(file_, times) : utimensat(file_, "", times, AT_EMPTY_PATH);
        if (set != 0) warn(errno, "modification time");
    }

private:
    // An archive of few bytes can have megabytes of attributes. When the run stops here, it has reported that.
    bool set(const char* name, const std::string& value) {
        if (!run_.charge(std::strlen(name) + value.size())) return true;
        return change(fsetxattr, setxattr, name, value.data(), value.size(), 0);
    }

    // To remove a list that is not there would change the inode.
    void removeList(const char* attribute) {
        const bool removed = change(fgetxattr, getxattr, attribute, nullptr, std::size_t{0}) &&
                             change(fremovexattr, removexattr, attribute);
        if (!removed && errno != ENODATA && errno != ENOTSUP) warn(errno, "inherited access control list");
    }

    [[nodiscard]] bool hasMode(mode_t mode) const {
        struct stat status {};
        return fstat(file_, &status) == 0 && (status.st_mode & 07777U) == mode;
    }

    [[nodiscard]] bool isOpen() const { return head_.type == EntryType::file; }

    // An O_PATH descriptor has no calls for modes and attributes. Its entry in /proc leads to the file itself, whatever
    // has happened to the name.
    template <typename OfFile, typename OfPath, typename... Arguments>
    bool change(OfFile ofFile, OfPath ofPath, Arguments... arguments) const {
        if (isOpen()) return ofFile(file_, arguments...) >= 0;
        std::array<char, 32> path{};  // not a string: to free it might change errno
        std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", file_);
        return ofPath(path.data(), arguments...) >= 0;
    }

    // `code` is evaluated before any text is built, which could change errno.
    void warn(int code, std::string_view what, const std::string& name = {}) {
        run_.warn({std::string(what) + visibleText(name) + " not restored: " + std::strerror(code), code, head_.path});
    }

    ExtractionRun& run_;
    const EntryHead& head_;
    const int file_;
    bool hasOwner_ = false;  // of the archive
};

}  // namespace

std::size_t attributeMemory(const EntryTail& tail) {
    std::size_t size = 0;
    if (tail.attributes)
        for (const auto& attribute : *tail.attributes)
            size += sizeof attribute + attribute.name.size() + attribute.value.size();
    if (tail.accessLists)
        size += (tail.accessLists->access.size() + tail.accessLists->defaultList.size()) * sizeof(AccessRule);
    return size;
}

void restoreMetadata(ExtractionRun& run, const EntryHead& head, const EntryTail& tail, int file) {
    if (!run.preserves() && hasInodeFlags(head)) run.leaveOut(Privilege::flag);
    MetadataWriter writer(run, head, file);
    // A change of the owner clears set-id bits and file capabilities, a user cannot set attributes of a file that the
    // mode protects from writing, and a change of the mode changes the mask of an access list.
    writer.setOwner();
    if (tail.attributes)
        for (const auto& attribute : *tail.attributes) writer.setAttribute(attribute);
    if (head.type != EntryType::link) {  // which has neither mode nor lists
        const auto lists = tail.accessLists.value_or(AccessLists{});
        writer.setMode();
        writer.setList(lists.access, accessListAttribute);
        if (head.type == EntryType::directory) writer.setList(lists.defaultList, defaultListAttribute);
    }
    writer.setTime();
}

mode_t restoredMode(const ExtractionRun& run, const EntryHead& head) {
    // If the archive has no mode, nobody else has access.
    const mode_t mode = head.mode.value_or(head.type == EntryType::file ? 0600 : 0700);
    return run.preserves() ? mode : mode & 0777 & ~run.umask();
}

}  // namespace tarnwick::qvx
