#include "qvx/extract/extracted_files.h"

#include <sys/stat.h>

namespace tarnwick::qvx {

namespace {

// Of the content, which is in an earlier entry.
std::optional<DigestCheck> digestOf(const EntryTail& tail) {
    return tail.content ? tail.content->digest : std::nullopt;
}

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * std::int64_t{1000000000} + time.tv_nsec; }

}  // namespace

void ExtractedFiles::add(std::uint64_t number, std::string_view path) {
    places_[number] = {text_.size(), path.size()};
    text_ += path;
}

std::optional<std::string_view> ExtractedFiles::pathOf(std::uint64_t number) const {
    const auto found = places_.find(number);
    if (found == places_.end()) return std::nullopt;
    return std::string_view(text_).substr(found->second.begin, found->second.length);
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
    const auto expected = digestOf(tail);
    return source && expected && readFile(source.get(), sink, *expected);
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
    const auto expected = digestOf(tail);
    return file && expected && readFile(file.get(), sink, *expected);
}

}  // namespace tarnwick::qvx
