#include "answers.h"

#include <utility>

#include "base/visible_text.h"

namespace tarnwick {

namespace {

PropertyListValue text(const std::string& bytes) { return {visibleText(bytes)}; }

void setText(PropertyListDictionary& dictionary, const char* key, const std::string& bytes) {
    if (!bytes.empty()) dictionary[key] = text(bytes);
}

PropertyListDictionary volumeEntry(const Volume& volume) {
    PropertyListDictionary entry;
    setText(entry, "DeviceIdentifier", volume.deviceIdentifier);
    setText(entry, "DiskUUID", volume.uuid);
    setText(entry, "FileSystemType", volume.fileSystem);
    setText(entry, "MountPoint", volume.mountPoint);
    setText(entry, "Role", volume.role);
    setText(entry, "VolumeName", volume.name);
    entry["Locked"] = PropertyListValue{volume.locked};
    if (volume.size != 0) entry["Size"] = PropertyListValue{static_cast<std::int64_t>(volume.size)};
    return entry;
}

// The last entry of the array `key`; a new one is appended first if the reference of the last one is not `reference`.
PropertyListDictionary& lastEntry(PropertyListDictionary& parent, const char* key, const char* referenceKey,
                                  const std::string& reference) {
    auto& entries = std::get<PropertyListArray>(parent[key].value);
    const auto* last = entries.empty() ? nullptr : entries.back().as<PropertyListDictionary>();
    const auto* known = last ? findValueAs<std::string>(*last, referenceKey) : nullptr;
    if (!known || *known != reference) entries.push_back({PropertyListDictionary{{referenceKey, {reference}}}});
    return std::get<PropertyListDictionary>(entries.back().value);
}

void ensureArray(PropertyListDictionary& parent, const char* key) {
    parent.try_emplace(key, PropertyListValue{PropertyListArray{}});
}

}  // namespace

PropertyListValue groupListing(const std::vector<Volume>& volumes) {
    PropertyListDictionary root;
    ensureArray(root, "Containers");
    for (const auto& volume : volumes) {
        if (!volume.exclusionReason.empty()) continue;
        auto& container = lastEntry(root, "Containers", "ContainerReference", visibleText(volume.container));
        ensureArray(container, "VolumeGroups");
        auto& group = lastEntry(container, "VolumeGroups", "GroupReference", visibleText(volume.group));
        ensureArray(group, "Volumes");
        std::get<PropertyListArray>(group["Volumes"].value).push_back({volumeEntry(volume)});
    }
    return {std::move(root)};
}

PropertyListValue volumeInformation(const Volume& volume) {
    auto entry = volumeEntry(volume);
    setText(entry, "ZKFSContainerReference", volume.container);
    return {std::move(entry)};
}

}  // namespace tarnwick
