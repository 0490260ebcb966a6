#include "qvx/extract/extracted_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace tarnwick::qvx {

namespace {

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * std::int64_t{1000000000} + time.tv_nsec; }

}  // namespace

void ExtractedFiles::add(std::uint64_t number, std::string_view path) {
    text_ += path;
    ends_.push_back({number, text_.size()});
}

std::optional<std::string_view> ExtractedFiles::pathOf(std::uint64_t number) const {
    const auto found = std::ranges::lower_bound(ends_, number, {}, &PathEnd::number);
    if (found == ends_.end() || found->number != number) return std::nullopt;
    const std::size_t begin = found == ends_.begin() ? 0 : std::prev(found)->end;
    return std::string_view(text_).substr(begin, found->end - begin);
}

// The digest is checked, and the link is made, through one descriptor. It does not matter if somebody replaces the name
// in the meantime.
bool ExtractedFiles::link(std::uint64_t number, const EntryTail& tail, int directory, TemporaryFile& file) {
    const FileDescriptor source = open(number);
    return hasContent(source, tail) && file.link(directory, source.get());
}

// The digest is compared after the copy. If it differs, the file has changed since it was extracted.
bool ExtractedFiles::copy(std::uint64_t number, const EntryTail& tail, TemporaryFile& file) {
    const FileDescriptor source = open(number);
    DigestingSink sink(run_, &file);
    return source && tail.digest && readFile(source.get(), sink, *tail.digest);
}

bool ExtractedFiles::isInPlace(int directory, const std::string& name, const EntryHead& head,
                               const EntryTail& tail) const {
    const FileDescriptor file = openRegularFile(directory, name);
    struct stat status {};
    return file && fstat(file.get(), &status) == 0 && head.mode == (status.st_mode & 07777U) &&
           head.modified == nanoseconds(status.st_mtim) && hasContent(file, tail);
}

// Opened by its path again: a descriptor for each extracted file would exceed the limit of open files.
FileDescriptor ExtractedFiles::open(std::uint64_t number) {
    const auto path = pathOf(number);
    const auto parent = path ? destination_.openParent(*path) : Error{};
    return parent ? openRegularFile(*parent, Destination::nameOf(*path)) : FileDescriptor();
}

// Without a digest, nothing shows that the file is still the one that was extracted.
bool ExtractedFiles::hasContent(const FileDescriptor& file, const EntryTail& tail) const {
    DigestingSink sink(run_);
    return file && tail.digest && readFile(file.get(), sink, *tail.digest);
}

}  // namespace tarnwick::qvx
