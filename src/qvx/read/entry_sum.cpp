#include "qvx/read/entry_sum.h"

namespace tarnwick::qvx {

void EntrySum::add(std::uint64_t number, const IndexEntry& entry) {
    text_.clear();
    WireWriter out(text_);
    for (const std::uint64_t value :
         {number, entry.block, entry.offset, entry.span, static_cast<std::uint64_t>(entry.type),
          static_cast<std::uint64_t>(entry.incomplete), static_cast<std::uint64_t>(entry.mode),
          static_cast<std::uint64_t>(entry.userId), static_cast<std::uint64_t>(entry.groupId), entry.size})
        out.varint(value);
    out.signedVarint(entry.modifiedSeconds);
    out.text(entry.path);
    const auto hash = hash_.wide(text_);
    for (std::size_t half = 0; half < sum_.size(); ++half) sum_[half] += hash[half];
}

}  // namespace tarnwick::qvx
