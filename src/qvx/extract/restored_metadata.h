// Sets the metadata of extracted files, directories and links.
#pragma once

#include "qvx/extract/extraction_run.h"
#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

// Bytes of memory that the attributes and access lists of an entry take.
std::size_t attributeMemory(const EntryTail& tail);

// Sets owner, attributes, mode, access lists and time of the open file, in this order. Of a directory or a link, O_PATH
// is enough. Warns of what could not be set, and records what is left out because the user did not ask for it.
void restoreMetadata(ExtractionRun& run, const EntryHead& head, const EntryTail& tail, int file);

// The permissions that restoreMetadata() sets, if nothing fails and there is no access list.
mode_t restoredMode(const ExtractionRun& run, const EntryHead& head);

}  // namespace tarnwick::qvx
