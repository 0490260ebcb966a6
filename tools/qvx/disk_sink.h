// Puts the entries of an archive on disk.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "destination.h"
#include "file_writers.h"
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

// A file is written under another name and gets its own once its content has proved right, replacing what stood there.
// An entry that cannot be put on disk is reported, and the next ones are not affected; so is one that was incomplete
// when it was captured, which is written as it is. Threads write small files, some of them later; all is on disk after
// finishDirectories(). Changes the working directory.
class DiskSink : public EntrySink {
public:
    // `directory` is an open directory, which must outlive the sink. With `keepIncomplete`, what there is of an
    // abandoned file stays as NAME.incomplete.
    DiskSink(int directory, bool keepIncomplete)
        : destination_(directory), sources_(directory), keepIncomplete_(keepIncomplete) {}

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

    // Gives the directories their metadata, which writing into them would have spoilt. To be called at the end, also of
    // a reading that was broken off.
    void finishDirectories();

    // Whether an entry could not be put on disk, or was incomplete when it was captured. To be asked at the end.
    [[nodiscard]] bool failed() const { return failed_ || writers_.failed(); }

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

    Destination destination_;
    Destination sources_;  // the same, for looking elsewhere while parent_ stays open
    bool keepIncomplete_;
    EntryHead head_;
    std::string name_;  // the last component of the path
    int parent_ = -1;   // the directory it stands in
    TemporaryFile temporary_;
    std::vector<std::uint8_t> content_;  // of a small file, until it is whole
    std::string linkTarget_;
    ExtractedPaths extracted_;
    std::map<std::string, Directory, std::less<>> directories_;
    std::size_t remembered_ = 0;                     // bytes of their attributes
    std::set<std::string, std::less<>> handedOver_;  // paths that the writers may still be at
    std::string lastFolder_;                         // of the last of these
    FileWriters writers_;
    bool skipping_ = false;  // this entry has failed
    bool failed_ = false;
};

}  // namespace tarnwick::qvx
