#include "qvx/extract/extracted_files.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace tarnwick::qvx {

Status ExtractedFiles::add(std::uint64_t number, const ExtractedFile& file) {
    std::vector<std::uint8_t> record;
    WireWriter out(record);
    encodeIdentity(file.identity, out);
    out.text(file.path);
    if (auto charged = run_.chargeSpace(record.size()); !charged) return charged;
    const auto position = spool_.append(record);
    if (!position) return position.error();
    places_.add(number, *position);
    return {};
}

std::optional<ExtractedFile> ExtractedFiles::find(std::uint64_t number) const {
    std::vector<std::uint8_t> record;
    const auto place = places_.find(number);
    if (!place || !spool_.read(*place, record)) return std::nullopt;
    WireReader in(record);
    const FileIdentity identity = decodeIdentity(in);
    return ExtractedFile{std::string(in.text()), identity};
}

// The file is compared and linked through one descriptor. It does not matter if somebody replaces the name in the
// meantime.
bool ExtractedFiles::link(const ExtractedFile& file, int directory, const EntryHead& head, TemporaryFile& link) {
    const FileDescriptor source = openSame(file);
    return source && link.link(directory, head, source.get());
}

// The digest is compared after the copy. If it differs, the file has changed since it was extracted.
bool ExtractedFiles::copy(const ExtractedFile& file, const EntryTail& tail, TemporaryFile& copy) {
    const auto expected = tail.content ? tail.content->digest : std::nullopt;
    if (!expected) return false;
    // O_NONBLOCK: a FIFO that somebody has put there must not block the extraction.
    const FileDescriptor source = open(file, O_RDONLY | O_NONBLOCK);
    const auto found = source ? identityOf(source.get()) : Error{};
    if (!found || found->size != file.identity.size) return false;
    DigestingSink sink(run_, copy, zeros_);
    return readFile(source.get(), sink, *expected);
}

bool ExtractedFiles::isInPlace(const ExtractedFile& file, const EntryHead& head) {
    const FileDescriptor same = openSame(file);
    struct stat status {};
    if (!same || fstat(same.get(), &status) != 0) return false;
    const bool sameOwner = !run_.preserves() || (head.userId == status.st_uid && head.groupId == status.st_gid);
    return sameOwner && restoredMode(run_, head) == (status.st_mode & 07777U) &&
           head.modified == file.identity.modified;
}

// Opened by its path again: a descriptor for each extracted file would exceed the limit of open files.
FileDescriptor ExtractedFiles::open(const ExtractedFile& file, int flags) {
    const auto parent = destination_.openParent(file.path);
    if (!parent) return {};
    return FileDescriptor(openat(*parent, Destination::nameOf(file.path).c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
}

FileDescriptor ExtractedFiles::openSame(const ExtractedFile& file) {
    FileDescriptor found = open(file, O_PATH);
    const auto identity = found ? identityOf(found.get()) : Error{};
    return identity && *identity == file.identity ? std::move(found) : FileDescriptor();
}

}  // namespace tarnwick::qvx
