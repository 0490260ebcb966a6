// The inode flags of extracted files and directories, as chattr(1) sets them.
#pragma once

#include "qvx/extract/extraction_run.h"
#include "qvx/format/entry.h"

namespace tarnwick::qvx {

// Whether the entry has flags that a user can change. Others say how a file system stores a file.
bool hasInodeFlags(const EntryHead& head);

// Sets them for a file that is open for reading or with O_PATH. A flag that cannot be set is reported and makes the
// extraction fail. It comes last of all: no other change of an immutable file is possible.
void restoreInodeFlags(ExtractionRun& run, const EntryHead& head, int file);

}  // namespace tarnwick::qvx
