#include "written_paths.h"

#include <functional>

namespace tarnwick::qvx {

namespace {

std::uint32_t hashOf(const std::string& path) { return static_cast<std::uint32_t>(std::hash<std::string>()(path)); }

}  // namespace

Status WrittenPaths::add(std::uint64_t number, const std::string& path) {
    const auto position = spool_.append({reinterpret_cast<const std::uint8_t*>(path.data()), path.size()});
    if (!position) return position.error();
    byNumber_.add(number, *position);
    const std::uint32_t hash = hashOf(path);
    const auto earlier = byHash_.find(hash);
    if (!earlier) byHash_.add(hash, *position);
    if (pathAt(earlier) == path) replaced_.insert(hash);
    return {};
}

std::optional<std::string> WrittenPaths::find(std::uint64_t number) const {
    auto path = pathAt(byNumber_.find(number));
    return path && !replaced_.contains(hashOf(*path)) ? std::move(path) : std::nullopt;
}

std::optional<std::string> WrittenPaths::pathAt(std::optional<std::uint64_t> position) const {
    std::vector<std::uint8_t> text;
    if (!position || !spool_.read(*position, text)) return std::nullopt;
    return std::string(text.begin(), text.end());
}

}  // namespace tarnwick::qvx
