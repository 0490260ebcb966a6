// An archive file opened for reading: its bytes, and where its blocks are.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/handle.h"
#include "qvx/bytes.h"
#include "qvx/read/read_outcome.h"

namespace tarnwick::qvx {

// Every read states its position, so any number of threads may share one object.
class ArchiveFile {
public:
    // Fails when the descriptor is not of a regular file.
    static Result<std::unique_ptr<ArchiveFile>, ReadFault> open(FileDescriptor descriptor);

    [[nodiscard]] std::uint64_t size() const { return size_; }

    // Sets where the blocks are. Before that, they are the whole file.
    void setBlocks(std::uint64_t begin, std::uint64_t end);
    [[nodiscard]] std::uint64_t blocksBegin() const { return blocksBegin_; }
    [[nodiscard]] std::uint64_t blocksEnd() const { return blocksEnd_; }  // at least blocksBegin()

    // Fills `bytes` from the file. Fails also when the file ends too early.
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const;

    // The bytes that read() was asked for so far: a measure of work, for tests.
    [[nodiscard]] std::uint64_t bytesRead() const { return bytesRead_; }

private:
    ArchiveFile(FileDescriptor descriptor, std::uint64_t size)
        : descriptor_(std::move(descriptor)), size_(size), blocksEnd_(size) {}

    FileDescriptor descriptor_;
    std::uint64_t size_;
    std::uint64_t blocksBegin_ = 0;
    std::uint64_t blocksEnd_;
    mutable std::atomic<std::uint64_t> bytesRead_ = 0;
};

}  // namespace tarnwick::qvx
