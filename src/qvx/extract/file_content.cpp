#include "qvx/extract/file_content.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "base/file_reading.h"

namespace tarnwick::qvx {

namespace {

constexpr off_t maxBuffer = 1048576;

// The end of the data or of the hole at `at`. File systems that do not report holes have data only.
off_t seek(int file, off_t at, int whence, off_t fallback, off_t size) {
    const off_t found = lseek(file, at, whence);
    if (found >= 0) return found;
    // ENXIO: no data after `at`, so the rest is a hole.
    return errno == ENXIO ? size : fallback;
}

bool readData(int file, off_t begin, off_t end, MutableBytes buffer, EntrySink& sink) {
    for (off_t at = begin; at < end;) {
        const auto length = std::min(buffer.size(), static_cast<std::size_t>(end - at));
        const auto count = readAt(file, buffer.first(length), static_cast<std::uint64_t>(at));
        // 0: the file has become shorter.
        if (!count || *count == 0 || !sink.data(buffer.first(*count))) return false;
        at += static_cast<off_t>(*count);
    }
    return true;
}

bool readAll(int file, EntrySink& sink) {
    const off_t size = lseek(file, 0, SEEK_END);
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::clamp<off_t>(size, 0, maxBuffer)));
    for (off_t at = 0; at < size;) {
        const off_t begin = seek(file, at, SEEK_DATA, at, size);
        const off_t end = seek(file, begin, SEEK_HOLE, size, size);
        if (begin > at && !sink.hole(static_cast<std::uint64_t>(begin - at))) return false;
        if (!readData(file, begin, end, buffer, sink)) return false;
        at = end;
    }
    return size >= 0;
}

}  // namespace

bool FileSink::data(Bytes bytes) {
    written_ = file_.append(bytes);
    return written_ && !run_.interrupted();
}

bool FileSink::hole(std::uint64_t length) {
    file_.appendHole(length);
    return !run_.interrupted();
}

bool DigestingSink::data(Bytes bytes) {
    digest_.add(bytes);
    return FileSink::data(bytes);
}

bool DigestingSink::hole(std::uint64_t length) {
    if (!zeros_.add(length)) return false;
    digest_.addZeros(length);
    return FileSink::hole(length);
}

bool readFile(int file, DigestingSink& sink, const DigestCheck& expected) {
    return readAll(file, sink) && checkOf(sink.digest()) == expected;
}

}  // namespace tarnwick::qvx
