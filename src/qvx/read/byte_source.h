// Where the bytes of an archive are: in a file, or elsewhere.
#pragma once

#include <cstdint>
#include <memory>

#include "base/handle.h"
#include "qvx/bytes.h"
#include "qvx/read/read_outcome.h"

namespace tarnwick::qvx {

// Every read states its position, so any number of threads may share one object.
class ByteSource {
public:
    ByteSource() = default;
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;
    virtual ~ByteSource() = default;

    [[nodiscard]] virtual std::uint64_t size() const = 0;

    // Fills `bytes`, which are within the size. Fails also when the source has become shorter.
    [[nodiscard]] virtual Status read(std::uint64_t position, MutableBytes bytes) const = 0;
};

// Fails when the descriptor is not of a regular file.
Result<std::unique_ptr<ByteSource>, ReadFault> openFileSource(FileDescriptor descriptor);

}  // namespace tarnwick::qvx
