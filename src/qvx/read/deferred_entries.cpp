#include "qvx/read/deferred_entries.h"

#include <algorithm>

namespace tarnwick::qvx {

Status DeferredEntries::add(const RecordPlace& place, const EntryReader& entry) {
    // What is decoded encodes to the same bytes: each entry has one form only.
    text_.assign(3 * sizeof(std::uint32_t), 0);
    putLittleEndian<4>(text_.data(), place.block);
    putLittleEndian<4>(text_.data() + 4, place.offset);
    encodeEntryHead(entry.head(), text_);
    putLittleEndian<4>(text_.data() + 8, text_.size());
    encodeEntryTail(entry.tail(), text_);
    const auto position = spool_.append(text_);
    if (!position) return position.error();
    waiting_.push_back({*position, hash_(entry.head().path), static_cast<std::uint32_t>(entry.head().number),
                        static_cast<std::uint32_t>(*entry.tail().contentOf)});
    return {};
}

ReadOutcome DeferredEntries::deliver(ArchiveIndex& index, const EntryChoice& choice, RereadContents& contents,
                                     EntrySink& sink) {
    if (waiting_.empty()) return {};
    if (auto dropped = dropReplaced(index, choice); !dropped) return dropped.error();
    if (auto located = locateContents(index); !located) return located.error();
    std::ranges::sort(waiting_, {}, [](const Waiting& waiting) { return std::pair(waiting.place, waiting.number); });
    EntryReader entry(sink);
    for (const Waiting& waiting : waiting_)
        if (auto outcome = deliverOne(waiting, contents, entry); !outcome) return outcome;
    return {};
}

// Both walk the index once, however many entries wait.

Result<void, ReadFault> DeferredEntries::dropReplaced(ArchiveIndex& index, const EntryChoice& choice) {
    // Of several with one path, the one with the highest number comes first and stays.
    std::ranges::sort(waiting_, std::ranges::greater(),
                      [](const Waiting& waiting) { return std::pair(waiting.pathHash, waiting.number); });
    const auto samePath = [](const Waiting& a, const Waiting& b) { return a.pathHash == b.pathHash; };
    waiting_.erase(std::unique(waiting_.begin(), waiting_.end(), samePath), waiting_.end());
    const auto visit = [&](std::uint64_t number, const IndexEntry& entry) {
        const std::uint64_t hash = hash_(entry.path);
        const auto found = std::ranges::lower_bound(waiting_, hash, std::ranges::greater(), &Waiting::pathHash);
        if (found != waiting_.end() && found->pathHash == hash && found->number < number && choice(number, entry.path))
            found->content = found->number;  // an entry that refers to itself is dropped below
        return true;
    };
    auto visited = index.visit(visit);
    std::erase_if(waiting_, [](const Waiting& waiting) { return waiting.content == waiting.number; });
    return visited;
}

Result<void, ReadFault> DeferredEntries::locateContents(ArchiveIndex& index) {
    std::ranges::sort(waiting_, {}, &Waiting::content);
    auto next = waiting_.begin();
    return index.visit([&](std::uint64_t number, const IndexEntry& entry) {
        for (; next != waiting_.end() && next->content == number; ++next)
            next->place = {static_cast<std::uint32_t>(entry.block), static_cast<std::uint32_t>(entry.offset)};
        return next != waiting_.end();
    });
}

ReadOutcome DeferredEntries::deliverOne(const Waiting& waiting, RereadContents& contents, EntryReader& entry) {
    std::vector<std::uint8_t>& text = text_;
    if (Status read = spool_.read(waiting.text, text); !read) return ReadFault{read.error()};
    const Bytes head = Bytes(text).first(static_cast<std::size_t>(getLittleEndian<4>(&text[8])));
    const RecordPlace place{static_cast<std::uint32_t>(getLittleEndian<4>(text.data())),
                            static_cast<std::uint32_t>(getLittleEndian<4>(&text[4]))};
    if (auto begun = entry.consume({RecordType::entry, false, head.subspan(12)}); !begun) return begun;
    if (auto ended = entry.consume({RecordType::end, false, Bytes(text).subspan(head.size())}); !ended) return ended;
    if (waiting.place >= place) {
        ReadFault fault{entry.error("the entry with its content is missing or a different one"), place.block};
        entry.abandon();
        return fault;
    }
    return entry.deliver(
        [&](EntrySink& sink) { return contents.read(waiting.content, waiting.place, std::nullopt, sink); });
}

}  // namespace tarnwick::qvx
