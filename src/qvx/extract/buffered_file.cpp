#include "qvx/extract/buffered_file.h"

#include <utility>

namespace tarnwick::qvx {

void BufferedFile::begin(int directory, const EntryHead& head) {
    directory_ = directory;
    head_ = &head;
}

Status BufferedFile::append(Bytes bytes) {
    // A content that has begun on disk continues there, so that its bytes stay in order.
    if (isInMemory() && content_.size() + bytes.size() <= maxMemory) {
        content_.insert(content_.end(), bytes.begin(), bytes.end());
        return {};
    }
    if (auto made = writeOut(); !made) return made;
    return temporary_.append(bytes);
}

// Only a file can have a hole: in memory, its zeros would need space, and a hole may be larger than any memory.
Status BufferedFile::appendHole(std::uint64_t length) {
    if (auto made = writeOut(); !made) return made;
    temporary_.appendHole(length);
    return {};
}

Status BufferedFile::writeOut() {
    if (temporary_.exists()) return {};
    if (auto made = temporary_.create(directory_, *head_); !made) return made;
    // Moved out, so that the memory is free when the file has the bytes.
    const auto content = std::exchange(content_, {});
    return temporary_.append(content);
}

void BufferedFile::discard() {
    temporary_.discard();
    content_.clear();
}

}  // namespace tarnwick::qvx
