#include "entry_selection.h"

#include "qvx/read/choice_sink.h"

namespace tarnwick::qvx {

EntrySelection::EntrySelection(const std::vector<std::string>& patterns, bool anyDepth) {
    for (const auto& pattern : patterns) patterns_.push_back({pattern, PathPattern(pattern, anyDepth)});
}

bool EntrySelection::contains(std::string_view path) {
    bool any = isAll();
    for (auto& chosen : patterns_)
        if (chosen.pattern.matchesAtOrAbove(path)) any = chosen.matched = true;
    return any;
}

bool EntrySelection::allMatched(const Describe& describe) const {
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
    const EntryChoice choice = [&](std::uint64_t, std::string_view path) { return selection.contains(path); };
    ChoiceSink chosen(choice, sink);
    if (selection.isAll()) return reader.readAll(sink);
    // A pipe has no index when it is needed.
    return reader.isStream() ? reader.readAll(chosen) : reader.readChosen(choice, sink);
}

Error noIntactEntry(const std::string& pattern) { return {"no intact entry matches", 0, pattern}; }

ReadOutcome salvageSelected(ArchiveReader& reader, EntrySelection& selection, EntrySink& sink,
                            const ArchiveReader::FaultReport& report) {
    const EntryChoice choice = [&](std::uint64_t, std::string_view path) { return selection.contains(path); };
    ChoiceSink chosen(choice, sink);
    const auto reportSelected = [&](const ReadFault& fault) {
        if (fault.subject.empty() || selection.contains(entryPath(fault.subject))) report(fault);
    };
    return reader.salvage(chosen, reportSelected);
}

}  // namespace tarnwick::qvx
