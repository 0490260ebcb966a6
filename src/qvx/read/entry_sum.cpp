#include "qvx/read/entry_sum.h"

#include <algorithm>
#include <random>

namespace tarnwick::qvx {

EntrySum::Key EntrySum::randomKey() {
    Key key{};
    std::random_device random;
    std::ranges::generate(key, [&] { return static_cast<std::uint8_t>(random()); });
    return key;
}

void EntrySum::add(std::uint64_t number, const IndexEntry& entry) {
    text_.resize(std::tuple_size_v<Key>);
    WireWriter out(text_);
    for (const std::uint64_t value :
         {number, entry.block, entry.offset, entry.span, static_cast<std::uint64_t>(entry.type),
          static_cast<std::uint64_t>(entry.incomplete), static_cast<std::uint64_t>(entry.mode),
          static_cast<std::uint64_t>(entry.userId), static_cast<std::uint64_t>(entry.groupId), entry.size})
        out.varint(value);
    out.signedVarint(entry.modifiedSeconds);
    out.text(entry.path);
    digest_.restart();
    digest_.add(text_);
    const Digest digest = digest_.finish();
    for (std::size_t lane = 0; lane < sum_.size(); ++lane) sum_[lane] += getLittleEndian<8>(&digest[8 * lane]);
}

}  // namespace tarnwick::qvx
