// The regular file that is being extracted. Its content is kept in memory until it is too long for that, or has a hole;
// only then the file is made.
#pragma once

#include <vector>

#include "qvx/extract/temporary_file.h"

namespace tarnwick::qvx {

class BufferedFile {
public:
    static constexpr std::size_t maxMemory = 65536;  // bytes of content

    explicit BufferedFile(ExtractionRun& run) : temporary_(run) {}

    // The file will be made in `directory`. It and `head` must stay valid until the next call.
    void begin(int directory, const EntryHead& head);

    Status append(Bytes bytes);
    Status appendHole(std::uint64_t length);

    // Makes the file, with the content so far, if that was not done yet.
    Status writeOut();

    [[nodiscard]] bool isInMemory() const { return !temporary_.exists(); }
    [[nodiscard]] bool isEmpty() const { return isInMemory() && content_.empty(); }
    std::vector<std::uint8_t> releaseContent() { return std::move(content_); }  // of a file in memory

    // The file on disk; also for what else is made in its place: a symbolic link, or a second name of another file.
    TemporaryFile& temporary() { return temporary_; }

    void discard();

private:
    TemporaryFile temporary_;
    std::vector<std::uint8_t> content_;
    const EntryHead* head_ = nullptr;
    int directory_ = -1;
};

}  // namespace tarnwick::qvx
