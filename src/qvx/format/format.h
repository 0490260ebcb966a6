// The constants of the archive format; docs/qvx-format.md describes it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "qvx/bytes.h"

namespace tarnwick::qvx {

inline constexpr std::array<std::uint8_t, 8> fileMagic{0x89, 0x51, 0x56, 0x58, 0x0d, 0x0a, 0x1a, 0x0a};
inline constexpr std::uint16_t formatVersion = 1;
inline constexpr std::uint16_t profileHpke = 3;
inline constexpr std::uint32_t compressionZstd = 2049;
inline constexpr std::uint64_t streamFlags = 0xC000000000000000;  // sealed to recipients, indexed
inline constexpr std::uint32_t blockSize = 1048576;
inline constexpr std::size_t maxRecipients = 16;
inline constexpr std::size_t fixedHeaderSize = 64;  // of the header, up to the recipients; HPKE binds it as `info`
inline constexpr std::size_t recipientSize = 145;
inline constexpr std::size_t headerTagSize = 32;
constexpr std::size_t headerSize(std::size_t recipients) {
    return fixedHeaderSize + recipients * recipientSize + headerTagSize;
}

// The footer is a copy of the header, its length and the end mark.
inline constexpr std::array<std::uint8_t, 8> endMark{0x89, 0x51, 0x56, 0x58, 0x45, 0x4e, 0x44, 0x0a};
inline constexpr std::size_t footerEndSize = 4 + endMark.size();

inline constexpr std::array<std::uint8_t, 4> blockMagic{0x51, 0x56, 0x58, 0x42};
inline constexpr std::size_t blockHeaderSize = 24;
inline constexpr std::uint64_t maxBlocks = 2097152;
inline constexpr std::size_t maxLeaders = 16;  // that a block may choose from: the last ones before it
inline constexpr std::uint8_t blockLast = 0x01;
inline constexpr std::uint8_t blockCompressed = 0x02;
inline constexpr std::uint8_t blockWithDictionary = 0x04;
inline constexpr std::uint8_t blockLeader = 0x08;

enum class RecordType : std::uint8_t {
    pad = 0,
    entry = 1,
    data = 2,
    hole = 3,
    end = 4,
    index = 5,
    root = 6,
    trailer = 7,
};

// Types for later additions. A reader skips such a record between entries.
constexpr bool isAddition(RecordType type) {
    return type >= static_cast<RecordType>(0x40) && type <= static_cast<RecordType>(0x7e);
}

inline constexpr std::uint8_t recordContinues = 0x80;
inline constexpr std::size_t recordHeaderSize = 4;
inline constexpr std::size_t trailerSize = 32;
inline constexpr std::size_t lastBlockSize = blockHeaderSize + recordHeaderSize + trailerSize + tagSize;

enum class EntryType : std::uint8_t { file = 1, directory = 2, link = 3 };

inline constexpr std::uint8_t entryDigestAnnounced = 0x80;  // bit in the byte of the type in ENTRY

inline constexpr std::uint8_t indexIncomplete = 0x80;  // bit in the byte of the type of an index entry

inline constexpr std::uint64_t maxEntries = 4294967295;    // of one archive
inline constexpr std::uint64_t minIndexPartEntries = 128;  // the last part may have fewer
inline constexpr std::size_t maxPathLength = 4095;
inline constexpr unsigned maxMode = 07777;
inline constexpr std::uint32_t maxId = 0xfffffffe;  // of a user or a group; to the kernel, 2^32 - 1 means no id
inline constexpr std::uint64_t maxContentSize = 0x7fffffffffffffff;  // of one entry, as are the next seven
inline constexpr std::size_t maxTargetLength = 4095;
inline constexpr std::size_t maxAttributes = 65536;
inline constexpr std::size_t maxAttributeNameLength = 255;
inline constexpr std::size_t maxAttributeValueLength = 65536;
inline constexpr std::size_t maxAttributeBytes = 1048576;  // names and values together
inline constexpr std::size_t maxAccessRules = 8191;        // of one list
inline constexpr std::size_t maxUnreadableExtents = 4096;
inline constexpr std::uint64_t maxDigestedZeros = std::uint64_t{1} << 34;  // bytes, of all entries of an archive
inline constexpr std::size_t maxEndLength = 2097152;  // bytes of the joined payload, as in the next row
inline constexpr std::size_t maxIndexLength = 1048576;

}  // namespace tarnwick::qvx
