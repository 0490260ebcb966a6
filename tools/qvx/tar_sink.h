// Writes entries as a tar stream in the pax format to standard output.
#pragma once

#include <memory>
#include <string>

#include "base/handle.h"
#include "qvx/read/entry_reader.h"
#include "spooled_content.h"
#include "written_paths.h"

struct archive;
struct archive_entry;

namespace tarnwick::qvx {

// The header of a tar entry comes before the content and states its size, its holes and its attributes, which an entry
// of our archives has at its end. So an entry is written when all of it is read and checked: a damaged one leaves no
// trace in the stream. An entry that was incomplete when it was captured is reported, and written as it is.
//
// Memory: that of SpooledContent and WrittenPaths.
class TarSink : public EntrySink {
public:
    TarSink();
    ~TarSink() override;

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override { return accept(content_.add(bytes)); }
    bool hole(std::uint64_t length) override { return accept(content_.addHole(length)); }
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override {}

    // Writes the end of the stream.
    Status close();

    // Ends the stream in the middle of an entry, so that every reader of it finds that it is not complete: many accept
    // one that only lacks its end. The destructor does the same unless close() was called.
    void cut();

    // Why this sink has stopped the reading, and the entry.
    [[nodiscard]] const Status& status() const { return status_; }
    [[nodiscard]] bool incomplete() const { return incomplete_; }  // one of the entries was incomplete

private:
    struct Free {
        void operator()(archive* stream) const noexcept;
    };

    bool accept(const Status& status);
    Status writeEntry(const EntryTail& tail, const ContentReader& content);
    void addMetadata(archive_entry* header, const EntryTail& tail);
    Status addContent(archive_entry* header);
    Status writeContent();
    Status writeHeader(archive_entry* header);
    Status writeHole(std::uint64_t length);
    Status writeData(Bytes bytes);
    [[nodiscard]] Error failure() const;

    std::unique_ptr<archive, Free> stream_;
    std::uint64_t allowed_;  // bytes that still go to standard output
    EntryHead head_;
    SpooledContent content_;
    WrittenPaths paths_;
    Status status_;
    bool incomplete_ = false;
    bool inEntry_ = false;  // its header is written, its end is not
    bool closed_ = false;
};

}  // namespace tarnwick::qvx
