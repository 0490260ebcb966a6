// Sets the metadata of extracted files and directories. Owner, mode and times are set by libarchive's disk writer,
// attributes and access control lists by calls of our own: in an archive they come after the content, but the disk
// writer needs them before it.
#pragma once

#include <memory>
#include <string>

#include "base/handle.h"
#include "qvx/extract/extraction_run.h"
#include "qvx/format/entry_codec.h"

struct archive;

namespace tarnwick::qvx {

// Bytes of memory that the attributes and access control lists of an entry take.
std::size_t attributeMemory(const EntryTail& tail);

struct FreeDiskWriter {
    void operator()(archive* writer) const noexcept;
};
using DiskWriter = std::unique_ptr<archive, FreeDiskWriter>;

// `flags` are further ARCHIVE_EXTRACT flags. The disk writer uses the working directory of the thread. Throws
// std::bad_alloc.
DiskWriter newDiskWriter(int flags);

// Begins the file, directory or link `name`. Returns a status of libarchive.
int writeHeader(archive* writer, const std::string& name, const EntryHead& head, const std::string* linkTarget);

// The last error of the writer, or `fallback` if it has no text for it.
Error writerError(archive* writer, const char* fallback, const std::string& path);

// Sets attributes and access control lists of the open file (O_PATH is enough), and warns of those that could not be
// set. Links have none.
void restoreAttributes(ExtractionRun& run, const EntryHead& head, const FileDescriptor& file, const EntryTail& tail);

// Sets all metadata of the existing directory `name` in the working directory, and warns of what could not be set.
void restoreDirectory(ExtractionRun& run, const std::string& name, const EntryHead& head, const EntryTail& tail);

}  // namespace tarnwick::qvx
