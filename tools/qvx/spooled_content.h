// The content of one file, kept until all of it is known.
#pragma once

#include <functional>
#include <vector>

#include "qvx/format/entry.h"
#include "qvx/read/spool.h"

namespace tarnwick::qvx {

// Memory: 17 MiB. What does not fit is in a temporary file without a name.
class SpooledContent {
public:
    // What is added next is the content of another file.
    void restart();

    Status add(Bytes bytes);

    // Zeros. Where a hole is not aligned to 512 bytes, and of a file with very many holes, these become data.
    Status addHole(std::uint64_t length);

    [[nodiscard]] std::uint64_t size() const { return size_; }
    [[nodiscard]] bool isSparse() const { return dataSize_ < size_; }

    // Where the data is: ascending and never adjacent.
    [[nodiscard]] const std::vector<Extent>& data() const { return data_; }

    // Passes the content from its beginning to the end. Fails when one of the functions does, or the temporary file.
    using Data = std::function<Status(Bytes)>;
    using Hole = std::function<Status(std::uint64_t length)>;
    Status read(const Data& data, const Hole& hole);

private:
    // Reads the pieces in order.
    struct Cursor {
        std::size_t piece = 0;
        std::vector<std::uint8_t> buffer;
        Bytes left;
    };

    Status append(Bytes bytes);
    Status addZeros(std::uint64_t length);
    void extendData(std::uint64_t length);
    Status nextPiece(Cursor& cursor) const;
    Status readExtent(Cursor& cursor, std::uint64_t length, const Data& data) const;

    std::vector<Extent> data_;
    std::uint64_t size_ = 0;
    std::uint64_t dataSize_ = 0;
    std::vector<std::uint64_t> pieces_;  // positions in the spool
    std::vector<std::uint8_t> last_;     // the piece that is not in the spool
    Spool spool_;
};

}  // namespace tarnwick::qvx
