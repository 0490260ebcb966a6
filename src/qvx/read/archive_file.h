// An archive opened for reading: its bytes, and where its blocks are.
#pragma once

#include <atomic>
#include <vector>

#include "qvx/read/byte_source.h"

namespace tarnwick::qvx {

// Any number of threads may read from one object.
class ArchiveFile {
public:
    explicit ArchiveFile(std::unique_ptr<ByteSource> source) : source_(std::move(source)), blocksEnd_(size()) {}

    [[nodiscard]] std::uint64_t size() const { return source_->size(); }

    // Sets where the blocks are. Before that, they are the whole file.
    void setBlocks(std::uint64_t begin, std::uint64_t end);
    [[nodiscard]] std::uint64_t blocksBegin() const { return blocksBegin_; }
    [[nodiscard]] std::uint64_t blocksEnd() const { return blocksEnd_; }  // at least blocksBegin()

    // Fills `bytes` from the file. Fails also when the file ends too early.
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const;

    // Hints that a source that is far away fetches bytes early: these, or those from `position` on, of a reader that
    // continues from there. The positions may come from a hostile archive.
    void willRead(std::uint64_t begin, std::uint64_t end) const;
    void willReadFrom(std::uint64_t position) const;

    // Hints that about so many bytes in all will be read from now on.
    void expect(std::uint64_t bytes) const { source_->expect(bytes); }

    // For a stream: what must follow its last block.
    void expectFooter(std::vector<std::uint8_t> footer) { footer_ = std::move(footer); }

    // Whether the blocks may end at `position`. Reads the footer of a stream.
    [[nodiscard]] Status checkBlocksEnd(std::uint64_t position) const;

    [[nodiscard]] bool isStream() const { return source_->isStream(); }
    [[nodiscard]] bool isFile() const { return source_->isFile(); }
    [[nodiscard]] Status state() const { return source_->state(); }

    // The bytes that read() was asked for so far: a measure of work, for tests.
    [[nodiscard]] std::uint64_t bytesRead() const { return bytesRead_; }

private:
    std::unique_ptr<ByteSource> source_;
    std::uint64_t blocksBegin_ = 0;
    std::uint64_t blocksEnd_;
    std::vector<std::uint8_t> footer_;
    mutable std::atomic<std::uint64_t> bytesRead_ = 0;
};

}  // namespace tarnwick::qvx
