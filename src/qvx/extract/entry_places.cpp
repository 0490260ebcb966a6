#include "qvx/extract/entry_places.h"

#include <algorithm>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxRecent = 8192;

}  // namespace

void EntryPlaces::add(std::uint64_t number, std::uint64_t place) {
    recent_.emplace(static_cast<std::uint32_t>(number), place);
    if (recent_.size() < maxRecent) return;
    Run& run = runs_.emplace_back();
    for (const auto& [key, at] : recent_)
        run.push_back({key, static_cast<std::uint32_t>(at), static_cast<std::uint32_t>(at >> 32)});
    recent_.clear();
    while (runs_.size() > 1 && runs_[runs_.size() - 2].size() < 2 * runs_.back().size()) {
        Run last = std::move(runs_.back());
        runs_.pop_back();
        runs_.back() = merge(std::move(runs_.back()), std::move(last));
    }
}

std::optional<std::uint64_t> EntryPlaces::find(std::uint64_t number) const {
    const auto recent = recent_.find(static_cast<std::uint32_t>(number));
    if (recent != recent_.end()) return recent->second;
    for (const Run& run : runs_) {
        const auto found = std::ranges::lower_bound(run, number, {}, &Item::number);
        if (found != run.end() && found->number == number)
            return found->placeLow | std::uint64_t{found->placeHigh} << 32;
    }
    return std::nullopt;
}

EntryPlaces::Run EntryPlaces::merge(Run first, Run second) {
    Run merged;
    while (!first.empty() || !second.empty()) {
        const bool fromFirst = second.empty() || (!first.empty() && first.front().number < second.front().number);
        Run& from = fromFirst ? first : second;
        merged.push_back(from.front());
        from.pop_front();
    }
    return merged;
}

}  // namespace tarnwick::qvx
