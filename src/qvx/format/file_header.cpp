#include "qvx/format/file_header.h"

#include <algorithm>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

std::array<std::uint8_t, plainHeaderSize> encodePlainHeader(const PlainHeader& header) {
    std::array<std::uint8_t, plainHeaderSize> bytes{};
    std::copy(fileMagic.begin(), fileMagic.end(), bytes.begin());
    putLittleEndian<2>(bytes.data() + 8, formatVersion);
    putLittleEndian<2>(bytes.data() + 10, profileHpke);
    putLittleEndian<4>(bytes.data() + 12, compressionZstd);
    putLittleEndian<8>(bytes.data() + 16, streamFlags);
    putLittleEndian<4>(bytes.data() + 24, blockSize);
    putLittleEndian<4>(bytes.data() + 28, header.groupLength);
    std::copy(header.recipient.begin(), header.recipient.end(), bytes.begin() + 32);
    std::copy(header.encapsulated.begin(), header.encapsulated.end(), bytes.begin() + boundHeaderSize);
    return bytes;
}

Result<PlainHeader> decodePlainHeader(Bytes file) {
    if (file.size() < fileMagic.size() || !std::equal(fileMagic.begin(), fileMagic.end(), file.begin()))
        return Error{"not a qvx archive"};
    if (file.size() < plainHeaderSize) return Error{"the archive ends within its header"};
    PlainHeader header;
    header.groupLength = static_cast<std::uint32_t>(getLittleEndian<4>(file.data() + 28));
    std::copy_n(file.begin() + 32, header.recipient.size(), header.recipient.begin());
    std::copy_n(file.begin() + boundHeaderSize, header.encapsulated.size(), header.encapsulated.begin());
    // Every other field has one valid value, so a valid header is exactly the one that we would write.
    const auto expected = encodePlainHeader(header);
    if (header.groupLength == 0 || !std::equal(expected.begin(), expected.end(), file.begin()))
        return Error{"the header is damaged, or of a version that is not supported"};
    return header;
}

}  // namespace tarnwick::qvx
