// An archive file opened for reading: its bytes and its plain header.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/handle.h"
#include "qvx/format/block_codec.h"
#include "qvx/format/file_header.h"
#include "qvx/read/read_outcome.h"

namespace tarnwick::qvx {

// Every read states its position, so any number of threads may share one object.
class ArchiveFile {
public:
    // Fails when the descriptor is not of a regular file with a valid plain header.
    static Result<std::unique_ptr<ArchiveFile>, ReadFault> open(FileDescriptor descriptor);

    [[nodiscard]] const PlainHeader& header() const { return header_; }
    [[nodiscard]] std::uint64_t size() const { return size_; }

    // The first bytes of the file, which are bound into the seal of every block.
    [[nodiscard]] Bytes boundHeader() const { return Bytes(headerBytes_).first(boundHeaderSize); }

    // Fills `bytes` from the file. Fails also when the file ends too early.
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const;

private:
    ArchiveFile(FileDescriptor descriptor, std::uint64_t size) : descriptor_(std::move(descriptor)), size_(size) {}

    FileDescriptor descriptor_;
    std::uint64_t size_;
    std::vector<std::uint8_t> headerBytes_;
    PlainHeader header_;
};

}  // namespace tarnwick::qvx
