// Writes the entries of an archive to disk.
#pragma once

#include "qvx/extract/buffered_file.h"
#include "qvx/extract/deferred_work.h"
#include "qvx/extract/destination.h"
#include "qvx/extract/extracted_files.h"
#include "qvx/extract/extraction_run.h"
#include "qvx/extract/file_writers.h"
#include "qvx/extract/pending_paths.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// A file has no name, or a temporary one, until its content is verified. Then it replaces an existing file.
// An entry that cannot be written is reported and does not affect the next ones. An entry that was incomplete when it
// was captured is reported, and written as it is. Threads write small files; all files are on disk only after
// finishDirectories().
//
// Memory: 30 MiB, and at most 12 bytes for each entry. What does not fit is in a file without a name in `directory`.
class DiskSink : public EntrySink {
public:
    // `directory` is an open directory, which must outlive the sink.
    DiskSink(int directory, ExtractOptions options)
        : run_(std::move(options), directory),
          destination_(run_, directory),
          spool_(directory),
          deferred_(run_, spool_),
          extracted_(run_, directory, spool_) {}

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

    // Sets the metadata of the directories, and does what else comes last. Call it at the end, even if the archive was
    // not read to its end.
    void finishDirectories();

    // Whether an entry could not be written, or was incomplete when it was captured. Valid at the end.
    [[nodiscard]] bool failed() const { return run_.failed(); }

    // The kinds of metadata that were not restored, because ExtractOptions::preserve is not set; empty for none.
    [[nodiscard]] std::string leftOut() const { return run_.leftOut(); }

private:
    Status beginEntry();
    Status finishEntry(const EntryTail& tail, const ContentReader& content);
    Status finishLink(const EntryTail& tail);
    Status finishReference(const EntryTail& tail, const ContentReader& content);
    Status copyContent(const std::optional<ExtractedFile>& source, const EntryTail& tail, const ContentReader& content);
    Status submitToWriters(const EntryTail& tail);
    Status commit(const EntryTail& tail);
    [[nodiscard]] bool restoresFlags() const;
    Status keepIncomplete();
    void waitForPending();
    void skipIfFailed(const Status& status);

    ExtractionRun run_;
    Destination destination_;
    Spool spool_;
    DeferredWork deferred_;
    ExtractedFiles extracted_;
    PendingPaths pending_;

    EntryHead head_;    // of the entry that was begun; likewise below
    std::string name_;  // the last component of the path
    int parent_ = -1;   // the directory that contains it
    std::string linkTarget_;
    BufferedFile file_{run_};
    bool skipping_ = false;  // the entry has failed, or is the destination itself

    FileWriters writers_{run_};
};

}  // namespace tarnwick::qvx
