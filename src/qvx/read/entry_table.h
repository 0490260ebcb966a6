// The regular files read so far, for the later entries that refer to their content.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "qvx/format/index_codec.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// Memory: at most 48 bytes for each regular file that has its own content. Nothing that has been stored is ever moved,
// so growing needs no second copy of it. The entries come in any order.
class EntryTable {
public:
    EntryTable();

    // Adds the entry at `place`, unless another one has its content. Fails when there is one with its number.
    Status add(const RecordPlace& place, const EntryReader& entry);

    // Whether a reference to this entry can be resolved. Only entries that end earlier were added.
    [[nodiscard]] bool contains(std::uint64_t number) const { return find(number) != nullptr; }

    // Fails when the entry's reference is wrong. An entry whose content is in another one gets its `content`.
    Status resolve(EntryReader& entry) const;

    // Where an entry begins that contains() has.
    [[nodiscard]] RecordPlace placeOf(std::uint64_t number) const;

private:
    // Numbers of 64 bits are in halves: their alignment would cost 4 bytes.
    struct File {
        std::uint32_t number;
        std::uint32_t block;
        std::uint32_t offsetAndFlags;
        std::uint32_t sizeLow;
        std::uint32_t sizeHigh;
        DigestCheck digest;
    };
    static_assert(sizeof(File) == 36);
    static constexpr std::size_t chunkLength = 16384;
    using Chunk = std::array<File, chunkLength>;

    [[nodiscard]] const File& at(std::uint32_t slot) const;
    [[nodiscard]] const File* find(std::uint64_t number) const;
    [[nodiscard]] std::size_t slotOf(std::uint32_t number) const;
    [[nodiscard]] std::size_t hashOf(std::uint32_t number) const;
    void grow();

    std::vector<std::unique_ptr<Chunk>> chunks_;
    std::size_t count_ = 0;
    std::vector<std::uint32_t> slots_;  // open addressing: the place of a file in the chunks, plus 1; 0 if free
    // Random numbers, one row for each byte of an entry number, so that nobody can choose entry numbers that collide.
    std::array<std::array<std::uint32_t, 256>, 4> hash_{};
};

}  // namespace tarnwick::qvx
