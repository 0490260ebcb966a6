// Decompresses the content of files that gzip, xz or zstd has written.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace tarnwick::qvx {

// The data is hostile: what it may make us do is limited. A dictionary or window of more than 64 MiB is refused, and
// the text may have at most 64 MiB, or 256 times the bytes of the data if that is more.
class Decompressor {
public:
    // What recognize() needs of the data, unless that is shorter.
    static constexpr std::size_t beginning = 18;  // bytes

    // Receives the text in pieces. A result of false ends the work.
    using Visitor = std::function<bool(std::string_view text)>;

    // Null if the data is of none of these programs. Throws std::bad_alloc.
    static std::unique_ptr<Decompressor> recognize(std::string_view begin);

    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
    virtual ~Decompressor() = default;

    // Decompresses the next piece of the data. Several compressed streams may follow one another.
    Status write(std::string_view piece, const Visitor& visit) { return decompress(piece, false, visit); }

    // Call it at the end of the data. Fails when more should follow.
    Status finish(const Visitor& visit);

    // Bytes that this object may allocate; data that needs more is refused.
    [[nodiscard]] virtual std::size_t memory() const = 0;

protected:
    Decompressor() = default;

    // Advances `data` by what it has read, and returns the count of bytes that it has written to `text`. May return 0
    // without reading anything when the data or the space is at its end.
    virtual Result<std::size_t> step(std::string_view& data, bool last, char* text, std::size_t size) = 0;
    [[nodiscard]] virtual bool atEnd() const = 0;  // the data may end here

private:
    Status decompress(std::string_view piece, bool last, const Visitor& visit);

    std::vector<char> text_ = std::vector<char>(65536);
    std::uint64_t read_ = 0;
    std::uint64_t written_ = 0;
};

}  // namespace tarnwick::qvx
