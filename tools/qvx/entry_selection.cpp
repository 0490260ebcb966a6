#include "entry_selection.h"

namespace tarnwick::qvx {

EntrySelection::EntrySelection(const std::vector<std::string>& patterns) {
    for (const auto& pattern : patterns) patterns_.push_back({pattern, PathPattern(pattern)});
}

bool EntrySelection::contains(std::string_view path) {
    bool any = isAll();
    for (auto& chosen : patterns_)
        if (chosen.pattern.matchesAtOrAbove(path)) any = chosen.matched = true;
    return any;
}

bool EntrySelection::allMatched(Describe describe) const {
    bool all = true;
    for (const auto& chosen : patterns_) {
        if (!chosen.matched) report(describe(chosen.given));
        all = all && chosen.matched;
    }
    return all;
}

bool RenamingSink::begin(const EntryHead& head) {
    head_.reset();
    auto path = newPath_(head.path);
    if (!path) return true;
    head_ = head;
    head_->path = std::move(*path);
    return sink_.begin(*head_);
}

bool RenamingSink::finish(const EntryTail& tail, const ContentReader& content) {
    return !head_ || sink_.finish(tail, content);
}

void RenamingSink::abandon() {
    if (head_) sink_.abandon();
}

ReadOutcome readSelected(ArchiveReader& reader, EntrySelection& selection, EntrySink& sink) {
    if (selection.isAll()) return reader.readAll(sink);
    return reader.readChosen([&](std::uint64_t, std::string_view path) { return selection.contains(path); }, sink);
}

Error noIntactEntry(const std::string& pattern) { return {"no intact entry matches", 0, pattern}; }

ReadOutcome salvageSelected(ArchiveReader& reader, EntrySelection& selection, EntrySink& sink,
                            const ArchiveReader::FaultReport& report) {
    RenamingSink selected(
        sink, [&](const std::string& path) { return selection.contains(path) ? std::optional(path) : std::nullopt; });
    const auto reportSelected = [&](const ReadFault& fault) {
        if (fault.subject.empty() || selection.contains(entryPath(fault.subject))) report(fault);
    };
    return reader.salvage(selected, reportSelected);
}

}  // namespace tarnwick::qvx
