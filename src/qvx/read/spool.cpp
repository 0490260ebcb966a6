#include "qvx/read/spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/random_name.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr const char* spoolSubject = "temporary file";
constexpr std::size_t maxRest = 65536;  // bytes

FileDescriptor openUnnamed(const char* directory) {
    return FileDescriptor(directory ? ::open(directory, O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600) : -1);
}

// A file system that cannot have a file without a name.
FileDescriptor openRemoved(int directory) {
    const std::string name = ".qvx-" + randomDigits();
    FileDescriptor file(::openat(directory, name.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | O_RDWR | O_CLOEXEC, 0600));
    if (file) ::unlinkat(directory, name.c_str(), 0);
    return file;
}

}  // namespace

Result<std::uint64_t> Spool::append(Bytes text) {
    if (!file_)
        if (Status opened = open(); !opened) return opened.error();
    std::array<std::uint8_t, sizeof(std::uint64_t)> length{};
    // A full disk is reported at once, although the text may stay in memory.
    const std::uint64_t size = sizeof length + text.size();
    if (Status charged = directory_ >= 0 ? Status() : space_.charge(file_.get(), size); !charged)
        return Error{charged.error().text, charged.error().code, spoolSubject};
    putLittleEndian<sizeof length>(length.data(), text.size());
    if (rest_.size() + size > maxRest)
        if (Status written = writeOut(); !written) return written.error();
    const std::uint64_t position = size_ + rest_.size();
    rest_.insert(rest_.end(), length.begin(), length.end());
    rest_.insert(rest_.end(), text.begin(), text.end());
    if (rest_.size() <= maxRest) return position;
    // Not kept until the next call: it may be of many MiB.
    if (Status written = writeOut(); !written) return written.error();
    rest_ = {};
    return position;
}

Status Spool::read(std::uint64_t position, std::vector<std::uint8_t>& text) const {
    std::array<std::uint8_t, sizeof(std::uint64_t)> bytes{};
    if (Status done = readAt(position, bytes); !done) return done;
    text.resize(static_cast<std::size_t>(getLittleEndian<sizeof bytes>(bytes.data())));
    return readAt(position + sizeof bytes, text);
}

Status Spool::open() {
    if (directory_ >= 0) return openInDirectory();
    file_ = openUnnamed(::secure_getenv("TMPDIR"));
    if (!file_) file_ = openUnnamed("/var/tmp");
    if (file_) return {};
    // A file system that cannot have a file without a name.
    const std::unique_ptr<std::FILE, FreeWith<std::fclose>> named(std::tmpfile());
    if (named) file_ = FileDescriptor(::fcntl(::fileno(named.get()), F_DUPFD_CLOEXEC, 0));
    if (!file_) return systemError(errno, spoolSubject);
    return {};
}

Status Spool::openInDirectory() {
    file_ = FileDescriptor(::openat(directory_, ".", O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
    if (!file_) file_ = openRemoved(directory_);
    return file_ ? Status() : systemError(errno, spoolSubject);
}

Status Spool::writeOut() {
    Status written = write(rest_);
    if (written) rest_.clear();
    return written;
}

Status Spool::write(Bytes bytes) {
    std::uint64_t position = size_;
    while (!bytes.empty()) {
        const ssize_t count = ::pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(position));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return systemError(count < 0 ? errno : EIO, spoolSubject);
        position += static_cast<std::uint64_t>(count);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    size_ = position;
    return {};
}

Status Spool::readAt(std::uint64_t position, MutableBytes bytes) const {
    if (position >= size_) {
        std::copy_n(rest_.begin() + static_cast<std::ptrdiff_t>(position - size_), bytes.size(), bytes.begin());
        return {};
    }
    while (!bytes.empty()) {
        const ssize_t count = ::pread(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(position));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return systemError(count < 0 ? errno : EIO, spoolSubject);
        position += static_cast<std::uint64_t>(count);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return {};
}

}  // namespace tarnwick::qvx
