// Texts in a temporary file, for what must wait and may be too much for memory.
#pragma once

#include <cstdint>
#include <vector>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/bytes.h"
#include "qvx/read/free_space.h"

namespace tarnwick::qvx {

// The file has no name, and exists only after the first append(). What was appended last is in memory, at most 64 KiB
// or one text. For one thread at a time.
class Spool {
public:
    // The file will be in TMPDIR or /var/tmp, because /tmp is often in memory. It does not fill the disk.
    Spool() = default;

    // The file will be in this open directory, which must outlive the object.
    explicit Spool(int directory) : directory_(directory) {}

    // Returns the position to read the text from.
    Result<std::uint64_t> append(Bytes text);

    // Reads the text that was appended at `position` into `text`.
    Status read(std::uint64_t position, std::vector<std::uint8_t>& text) const;

private:
    Status open();
    Status openInDirectory();
    Status writeOut();
    Status write(Bytes bytes);
    Status readAt(std::uint64_t position, MutableBytes bytes) const;

    int directory_ = -1;
    FileDescriptor file_;
    FreeSpace space_;
    std::uint64_t size_ = 0;          // of the file
    std::vector<std::uint8_t> rest_;  // comes after that
};

}  // namespace tarnwick::qvx
