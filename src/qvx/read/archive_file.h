// An archive file opened for reading: its bytes and its plain header. Also the form in which readers report damage.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/handle.h"
#include "qvx/format/block_codec.h"
#include "qvx/format/file_header.h"

namespace tarnwick::qvx {

// What is wrong, and where, as far as that is known.
struct ReadFault {
    std::string what;                       // lower case, no full stop
    std::optional<std::uint64_t> block;     // sequence number
    std::optional<std::uint64_t> position;  // in the file, of that block's header
    std::optional<std::string> path;        // path of the entry; hostile bytes
};

// Every read states its position, so any number of threads may share one object.
class ArchiveFile {
public:
    // Opens a regular file with a valid plain header. Otherwise null, and `fault` says why.
    static std::unique_ptr<ArchiveFile> open(FileDescriptor descriptor, ReadFault& fault);

    [[nodiscard]] const PlainHeader& header() const { return header_; }
    [[nodiscard]] std::uint64_t size() const { return size_; }

    // The first bytes of the file, which are bound into the seal of every block.
    [[nodiscard]] Bytes boundHeader() const { return Bytes(headerBytes_).first(boundHeaderSize); }

    // Fills `bytes` from the file. False at an error and when the file ends too early; `what` says which.
    bool read(std::uint64_t position, MutableBytes bytes, std::string& what) const;

private:
    ArchiveFile(FileDescriptor descriptor, std::uint64_t size) : descriptor_(std::move(descriptor)), size_(size) {}

    FileDescriptor descriptor_;
    std::uint64_t size_;
    std::vector<std::uint8_t> headerBytes_;
    PlainHeader header_;
};

}  // namespace tarnwick::qvx
