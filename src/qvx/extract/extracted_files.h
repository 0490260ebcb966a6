// The regular files extracted so far, for later entries with the same content.
#pragma once

#include <optional>
#include <string>

#include "qvx/extract/destination.h"
#include "qvx/extract/entry_places.h"
#include "qvx/extract/file_content.h"
#include "qvx/extract/file_identity.h"
#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// Where the file of an entry was when it was written.
struct ExtractedFile {
    std::string path;
    FileIdentity identity;
};

// A file is opened again by its path, and somebody may have replaced or changed it by then. It is linked only if it is
// still the same file, and copied only if the copy has the digest of the entry.
//
// Memory: that of EntryPlaces. Paths and identities are in the spool.
class ExtractedFiles {
public:
    // `directory` is the destination. All arguments must outlive this object.
    ExtractedFiles(ExtractionRun& run, int directory, Spool& spool)
        : run_(run), destination_(run, directory), spool_(spool) {}

    Status add(std::uint64_t number, const ExtractedFile& file);
    [[nodiscard]] std::optional<ExtractedFile> find(std::uint64_t number) const;

    // Makes `link` a second name in `directory` for the file. False when that is not possible.
    bool link(const ExtractedFile& file, int directory, const EntryHead& head, TemporaryFile& link);

    // Appends the content of the file to `copy`. False when that is not possible; the content of `copy` is then
    // incomplete or wrong.
    bool copy(const ExtractedFile& file, const EntryTail& tail, TemporaryFile& copy);

    // Whether it is still the same file, and has the mode, time and (if restored) owner of this other entry.
    [[nodiscard]] bool isInPlace(const ExtractedFile& file, const EntryHead& head);

private:
    FileDescriptor open(const ExtractedFile& file, int flags);
    [[nodiscard]] FileDescriptor openSame(const ExtractedFile& file);

    ExtractionRun& run_;
    Destination destination_;  // not the sink's, because openParent() would close its directory
    Spool& spool_;
    EntryPlaces places_;  // in the spool
    DigestedZeros zeros_;
};

}  // namespace tarnwick::qvx
