#include "platform/archive/path_list.h"

#include <sys/stat.h>

#include <algorithm>

#include "platform/archive/entry_codec.h"
#include "platform/archive/wire.h"

namespace tarnwick {

void PathList::append(const Entry& entry) {
    const auto shared = static_cast<std::size_t>(
        std::mismatch(last_.begin(), last_.end(), entry.path.begin(), entry.path.end()).first - last_.begin());
    auto device = std::find(devices_.begin(), devices_.end(), entry.device);
    if (device == devices_.end()) device = devices_.insert(devices_.end(), entry.device);
    qvx::WireWriter out(coded_);
    out.varint(shared);
    out.text(std::string_view(entry.path).substr(shared));
    out.byte(static_cast<std::uint8_t>(entry.type));
    out.varint(static_cast<std::uint64_t>(device - devices_.begin()));
    last_ = entry.path;
    ++count_;
}

void PathList::append(const PathList& other) {
    Walk walk(other);
    while (const Entry* entry = walk.next()) append(*entry);
}

const PathList::Entry* PathList::Walk::next() {
    if (position_ == list_.coded_.size()) return nullptr;
    qvx::WireReader in(qvx::Bytes(list_.coded_).subspan(position_));
    entry_.path.resize(in.varint());
    entry_.path += in.text();
    entry_.type = static_cast<qvx::EntryType>(in.byte());
    entry_.device = list_.devices_[in.varint()];
    position_ = list_.coded_.size() - in.left();
    return &entry_;
}

namespace qvx {

std::optional<std::string> normalPath(std::string_view directory, std::string_view path) {
    if (path.empty()) return std::nullopt;
    std::string whole(path.starts_with('/') ? std::string_view() : directory);
    whole.append("/").append(path);
    std::string normal;
    for (std::size_t begin = 0; begin < whole.size();) {
        const std::size_t end = std::min(whole.find('/', begin), whole.size());
        const std::string_view component = std::string_view(whole).substr(begin, end - begin);
        if (!component.empty() && component != ".") normal.append("/").append(component);
        begin = end + 1;
    }
    if (!isEntryPath(std::string_view(normal).substr(normal.empty() ? 0 : 1))) return std::nullopt;
    return normal.empty() ? "/" : normal;
}

std::optional<EntryType> entryTypeOf(mode_t mode) {
    if (S_ISREG(mode)) return EntryType::file;
    if (S_ISDIR(mode)) return EntryType::directory;
    if (S_ISLNK(mode)) return EntryType::link;
    return std::nullopt;
}

}  // namespace qvx

}  // namespace tarnwick
