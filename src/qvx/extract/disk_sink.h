// Writes the entries of an archive to disk.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "qvx/extract/destination.h"
#include "qvx/extract/extraction_run.h"
#include "qvx/extract/file_writers.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// The paths of the files extracted so far, by entry number.
class ExtractedPaths {
public:
    void add(std::uint64_t number, std::string_view path);  // numbers ascend
    [[nodiscard]] std::optional<std::string_view> find(std::uint64_t number) const;

private:
    struct Place {
        std::uint64_t number = 0;
        std::size_t end = 0;
    };

    std::vector<Place> places_;
    std::string text_;
};

// A file is written under a temporary name and renamed when its content is verified, replacing what had the name. An
// entry that cannot be written is reported and does not affect the next ones. An entry that was incomplete when it was
// captured is reported, and written as it is. Threads write small files, some of them later; everything is on disk
// after finishDirectories(). Changes the working directory.
class DiskSink : public EntrySink {
public:
    // `directory` is an open directory, which must outlive the sink.
    DiskSink(int directory, ExtractOptions options)
        : run_(std::move(options)), destination_(directory), sources_(directory) {}

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

    // Sets the metadata of the directories, which writing into them would have changed. Call it at the end, also when
    // the reading ended early.
    void finishDirectories();

    // Whether an entry could not be written, or was incomplete when it was captured. Valid at the end.
    [[nodiscard]] bool failed() const { return run_.failed(); }

private:
    struct Directory {
        EntryHead head;
        EntryTail tail;
    };

    void settleAround(std::string_view path);
    void settle();
    void makeDirectory();
    bool keepInMemory(Bytes bytes);
    bool openTemporary();
    void finishDirectory(const EntryTail& tail);
    void handToWriters(const EntryTail& tail);
    void finishFile(const EntryTail& tail, const ContentReader& content);
    void finishLink(const EntryTail& tail);
    bool linkTo(std::string_view path, const EntryTail& tail);
    bool alreadyThere(const EntryTail& tail);
    bool copyFrom(std::string_view path, const EntryTail& tail);
    void commit(const EntryTail& tail);
    void reportIncomplete(const EntryTail& tail);
    void fail(const std::string& why);
    void failWithErrno();

    FileDescriptor openExtracted(std::string_view path);

    ExtractionRun run_;  // first: the writers use it until they end
    Destination destination_;
    Destination sources_;  // the same, for lookups elsewhere while parent_ stays open
    EntryHead head_;
    std::string name_;  // the last component of the path
    int parent_ = -1;   // the directory that contains it
    TemporaryFile temporary_{run_};
    std::vector<std::uint8_t> content_;  // content of a small file, until it is complete
    std::string linkTarget_;
    ExtractedPaths extracted_;
    std::map<std::string, Directory, std::less<>> directories_;
    std::size_t remembered_ = 0;                     // bytes of their attributes
    std::set<std::string, std::less<>> handedOver_;  // paths that the writers may not have written yet
    std::string lastFolder_;                         // folder of the last of these
    FileWriters writers_{run_};
    bool skipping_ = false;  // this entry has failed
};

}  // namespace tarnwick::qvx
