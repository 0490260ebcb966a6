#include "record_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "base/file_reading.h"
#include "base/handle.h"
#include "base/random_name.h"
#include "platform/consent_record.h"
#include "plist/xml_property_list.h"

namespace tarnwick {

namespace {

constexpr mode_t folderMode = 0755;
constexpr mode_t recordMode = 0644;

[[noreturn]] void fail(const std::string& subject, int error) {
    switch (error) {
        case ELOOP: throw RecordError(subject + " is a symbolic link");
        case EXDEV: throw RecordError(subject + " is the mount point of another file system");
        case ENOTDIR: throw RecordError(subject + " is not a folder");
        case EROFS: throw RecordError("the volume is read-only: mount it for writing and try again");
        default: throw RecordError(subject + ": " + std::strerror(error));
    }
}

FileDescriptor openWithRules(int folder, const std::string& path, int flags, std::uint64_t rules) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? recordMode : 0;
    how.resolve = rules | RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how)));
}

FileDescriptor openBelow(const FileDescriptor& folder, const std::string& name, int flags) {
    return openWithRules(folder.get(), name, flags, RESOLVE_BENEATH | RESOLVE_NO_XDEV);
}

// In a chroot, "/" need not be a mount point.
void requireMounted(const FileDescriptor& folder, const std::string& mountPoint) {
    struct statx status {};
    if (::statx(folder.get(), "", AT_EMPTY_PATH, 0, &status) != 0) fail(mountPoint, errno);
    const bool isKnown = (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
    if (mountPoint != "/" && isKnown && (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0)
        throw RecordError("nothing is mounted there any more");
}

FileDescriptor openMountPoint(const std::string& mountPoint) {
    auto folder = openWithRules(AT_FDCWD, mountPoint, O_RDONLY | O_DIRECTORY, 0);
    if (!folder) fail(mountPoint, errno);
    requireMounted(folder, mountPoint);
    return folder;
}

// Syncs a file or folder.
void sync(const FileDescriptor& file, const std::string& name) {
    if (::fsync(file.get()) != 0) fail(name, errno);
}

// The folders from the mount point to the record. The destructor removes those that were made unless keep() was called.
class RecordFolders {
public:
    explicit RecordFolders(const std::string& mountPoint) { open_.push_back(openMountPoint(mountPoint)); }
    RecordFolders(const RecordFolders&) = delete;
    RecordFolders& operator=(const RecordFolders&) = delete;
    ~RecordFolders() {
        for (; !made_.empty(); made_.pop_back())
            ::unlinkat(made_.back().parent, made_.back().name.c_str(), AT_REMOVEDIR);
    }

    // Opens the folders one below the other. Returns false when one is missing.
    bool open() { return descend(false); }
    void openOrMake() { descend(true); }

    void keep() {
        for (auto folder = open_.rbegin(); folder != open_.rend() && !made_.empty(); ++folder) sync(*folder, "folder");
        made_.clear();
    }

    [[nodiscard]] const FileDescriptor& last() const { return open_.back(); }

private:
    struct Made {
        int parent;
        std::string name;
    };

    bool descend(bool make) {
        for (const auto& name : std::filesystem::path(consentRecordPath).parent_path()) {
            auto folder = openBelow(last(), name, O_RDONLY | O_DIRECTORY);
            if (!folder && errno == ENOENT) {
                if (!make) return false;
                this->make(name);
                folder = openBelow(last(), name, O_RDONLY | O_DIRECTORY);
            }
            if (!folder) fail(name, errno);
            open_.push_back(std::move(folder));
        }
        return true;
    }

    void make(const std::string& name) {
        if (::mkdirat(last().get(), name.c_str(), folderMode) == 0) {
            made_.push_back({last().get(), name});
        } else if (errno != EEXIST) {
            fail(name, errno);
        }
    }

    std::vector<FileDescriptor> open_;  // the mount point first
    std::vector<Made> made_;
};

std::string recordName() { return std::filesystem::path(consentRecordPath).filename(); }

void requireRegular(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) throw RecordError("the record is not a regular file");
}

// fstatat before the open, so that no device is opened; fstat again after it, since the name may have changed.
FileDescriptor openRecord(const FileDescriptor& folder) {
    struct stat status {};
    if (::fstatat(folder.get(), recordName().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return {};
        fail("the record", errno);
    }
    requireRegular(status);
    auto file = openBelow(folder, recordName(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file || ::fstat(file.get(), &status) != 0) fail("the record", errno);
    requireRegular(status);
    if (status.st_size > static_cast<off_t>(maxPropertyListFile)) throw RecordError("the record is larger than 16 MiB");
    return file;
}

std::optional<PropertyListDictionary> readFrom(const FileDescriptor& folder) {
    const auto file = openRecord(folder);
    if (!file) return std::nullopt;
    const auto bytes = readToEnd(file, maxPropertyListFile);
    if (!bytes) fail("the record", bytes.error().code);
    auto record = parsePropertyListText(*bytes);
    if (!record) throw RecordError("the record is not a property list with a dictionary");
    return record;
}

// A new file with a random name. The destructor removes it unless it was renamed.
class TemporaryFile {
public:
    explicit TemporaryFile(const FileDescriptor& folder)
        : folder_(folder.get()), name_(".tarnwick-consent-" + randomDigits()) {
        file_ = openBelow(folder, name_, O_WRONLY | O_CREAT | O_EXCL);
        if (!file_) {
            const int error = errno;
            name_.clear();
            fail("the new record", error);
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!name_.empty()) ::unlinkat(folder_, name_.c_str(), 0);
    }

    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto count = ::write(file_.get(), bytes.data(), bytes.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) fail("the new record", errno);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    // A file system without owners and modes refuses every change, so nothing is changed without need.
    void setOwnerAndMode() {
        struct stat status {};
        bool done = ::fstat(file_.get(), &status) == 0;
        if (done && (status.st_uid != 0 || status.st_gid != 0)) done = ::fchown(file_.get(), 0, 0) == 0;
        if (done && (status.st_mode & 07777) != recordMode) done = ::fchmod(file_.get(), recordMode) == 0;
        if (!done) fail("the new record", errno);
    }

    void close() {
        sync(file_, "the new record");
        if (::close(file_.release()) != 0) fail("the new record", errno);
    }

    void rename(const std::string& name) {
        if (::renameat(folder_, name_.c_str(), folder_, name.c_str()) != 0) fail("the record", errno);
        name_.clear();
    }

private:
    int folder_;
    std::string name_;
    FileDescriptor file_;
};

// Holds back the signals by which people end a program, so that it does not end with a temporary file left.
class SignalHold {
public:
    SignalHold() {
        sigset_t held;
        sigemptyset(&held);
        for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&held, each);
        ::pthread_sigmask(SIG_BLOCK, &held, &before_);
    }
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;
    ~SignalHold() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

}  // namespace

std::optional<PropertyListDictionary> readConsentRecord(const std::string& mountPoint) {
    RecordFolders folders(mountPoint);
    return folders.open() ? readFrom(folders.last()) : std::nullopt;
}

void changeConsentRecord(const std::string& mountPoint, const std::function<void(PropertyListDictionary&)>& change) {
    const SignalHold hold;
    ::umask(0777 & ~folderMode);
    RecordFolders folders(mountPoint);
    folders.openOrMake();
    auto record = readFrom(folders.last()).value_or(PropertyListDictionary{});
    change(record);
    const auto text = writeXmlPropertyList(PropertyListValue{std::move(record)});
    if (text.size() > maxPropertyListFile) throw RecordError("the XML form of the record would be larger than 16 MiB");

    TemporaryFile file(folders.last());
    file.write(text);
    file.setOwnerAndMode();
    file.close();
    file.rename(recordName());
    sync(folders.last(), "folder");
    folders.keep();
}

}  // namespace tarnwick
