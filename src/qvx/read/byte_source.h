// Where the bytes of an archive are: in a file, in a pipe, or elsewhere.
#pragma once

#include <cstdint>
#include <functional>
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

    // A hint: these bytes, which are within the size, will be read soon. Returns at once. A source that is far away
    // begins to fetch them, as far as it can keep them.
    virtual void willRead(std::uint64_t /*begin*/, std::uint64_t /*end*/) const {}

    // A hint for a report of progress: about so many bytes in all will be read from now on.
    virtual void expect(std::uint64_t /*bytes*/) const {}

    // Whether the bytes come only once, from the first to the last. Then the size is not known: size() is the largest
    // one.
    [[nodiscard]] virtual bool isStream() const { return false; }

    // Whether the bytes are in a local file, where reading them again is cheap.
    [[nodiscard]] virtual bool isFile() const { return false; }

    // Fails when no byte can be read any more, because the connection to a server is lost for good.
    [[nodiscard]] virtual Status state() const { return {}; }
};

// Whether to stop waiting for bytes, because the user has interrupted the program. Any thread may call it.
using StopQuestion = std::function<bool()>;

// Fails when the descriptor is not of a regular file.
Result<std::unique_ptr<ByteSource>, ReadFault> openFileSource(FileDescriptor descriptor);

}  // namespace tarnwick::qvx
