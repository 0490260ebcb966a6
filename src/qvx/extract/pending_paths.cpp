#include "qvx/extract/pending_paths.h"

#include "qvx/extract/destination.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxPaths = 4096;
constexpr std::size_t maxBytes = 2U << 20;

}  // namespace

bool PendingPaths::conflictWith(std::string_view path) const {
    return paths_.size() >= maxPaths || bytes_ >= maxBytes || paths_.contains(path) || anyBelow(path) || anyAbove(path);
}

void PendingPaths::add(std::string_view path) {
    paths_.emplace(path);
    bytes_ += path.size();
    lastFolder_ = Destination::parentPathOf(path);
}

bool PendingPaths::anyBelow(std::string_view path) const {
    const std::string inside = std::string(path) + '/';
    const auto next = paths_.lower_bound(inside);
    return next != paths_.end() && next->starts_with(inside);
}

bool PendingPaths::anyAbove(std::string_view path) const {
    // The folders from that of the last path upwards were checked when that path was added.
    for (auto folder = Destination::parentPathOf(path); !folder.empty() && folder != lastFolder_;
         folder = Destination::parentPathOf(folder))
        if (paths_.contains(folder)) return true;
    return false;
}

void PendingPaths::clear() {
    paths_.clear();
    bytes_ = 0;
}

}  // namespace tarnwick::qvx
