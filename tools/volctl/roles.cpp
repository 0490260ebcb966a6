#include "roles.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <optional>

#include "file_systems.h"

namespace tarnwick {

namespace {

constexpr std::array<std::string_view, 5> roles{"Preboot", "Data", "System", "Swap", "Other"};

struct PartitionRole {
    std::string_view type;
    std::string_view role;
};

// Types of GPT partitions: https://uapi-group.org/specifications/specs/discoverable_partitions_specification/
constexpr std::array partitionRoles{
    PartitionRole{"bc13c2ff-59e6-4262-a352-b275fd6f7172", "Preboot"},  // extended boot loader
    PartitionRole{"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "System"},   // EFI system
    PartitionRole{"0657fd6d-a4ab-43c4-84e5-0933c84b4f4f", "Swap"},
    PartitionRole{"0fc63daf-8483-4772-8e79-3d69d8477de4", "Data"},  // generic
    PartitionRole{"933ac7e1-2eb4-4f13-b844-0e14e2aef915", "Data"},  // home
    PartitionRole{"3b8f8425-20e0-4f3b-907f-1a25a76f98e8", "Data"},  // srv
    PartitionRole{"4d21b016-b534-45c2-a9fb-5c16e091fd2d", "Data"},  // var
    PartitionRole{"4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "Data"},  // root: x86-64
    PartitionRole{"44479540-f297-41b4-9af7-d131d5f0458a", "Data"},  //       x86
    PartitionRole{"b921b045-1df0-41c3-af44-4c6f280d3fae", "Data"},  //       arm64
    PartitionRole{"69dad710-2ce4-4e3c-b16c-21a1d49abed3", "Data"},  //       arm
    PartitionRole{"72ec70a6-cf74-40e6-bd49-4bda08e8f224", "Data"},  //       riscv64
    PartitionRole{"c31c45e6-3f39-412e-80fb-4809c4980599", "Data"},  //       ppc64le
    PartitionRole{"8484680c-9521-48c6-9c11-b0720656f69e", "Data"},  // usr: x86-64
    PartitionRole{"75250d76-8cc6-458e-bd66-bd47cc81a812", "Data"},  //      x86
    PartitionRole{"b0e01050-ee5f-4390-949a-9101b17104e9", "Data"},  //      arm64
    PartitionRole{"7d0359a3-02b3-4f0a-865c-654403e70625", "Data"},  //      arm
    PartitionRole{"beaec34b-8442-439b-a40b-984381ed097d", "Data"},  //      riscv64
    PartitionRole{"15bb03af-77e7-4d4a-b12b-c0d084f7491c", "Data"},  //      ppc64le
};

bool sameUuid(const std::string& left, const std::string& right) {
    return !left.empty() && strcasecmp(left.c_str(), right.c_str()) == 0;
}

bool matches(const std::string& key, const RoleEvidence& evidence) {
    const auto isDevice = [&](const std::string& device) { return key == device || key == "/dev/" + device; };
    return sameUuid(evidence.uuid, key) || sameUuid(evidence.partitionUuid, key) ||
           std::any_of(evidence.deviceNames.begin(), evidence.deviceNames.end(), isDevice) ||
           (!evidence.label.empty() && key == evidence.label);
}

// Anybody who made a file system chose its label, so the more exact keys come first.
std::optional<std::string> roleBySettings(const RoleEvidence& evidence, const VolumeSettings& settings) {
    RoleEvidence withoutLabel = evidence;
    withoutLabel.label.clear();
    for (const auto& known : {withoutLabel, evidence})
        for (const auto& [key, role] : settings.roles)
            if (matches(key, known)) return role;
    return std::nullopt;
}

std::string_view roleByPartitionType(std::string_view type) {
    const auto* known = std::find_if(partitionRoles.begin(), partitionRoles.end(),
                                     [&](const PartitionRole& each) { return each.type == type; });
    return known == partitionRoles.end() ? std::string_view() : known->role;
}

std::string_view roleByEvidence(const RoleEvidence& evidence, std::string_view prebootDirectoryRole) {
    const auto& mounts = evidence.mountPoints;
    if (std::find(mounts.begin(), mounts.end(), "/") != mounts.end()) return "Data";
    if (evidence.isImage || fileSystem(evidence.fileSystem).isImage) return "Other";
    const auto byType = roleByPartitionType(evidence.partitionType);
    if (evidence.atPrebootDirectory && (byType.empty() || byType == "Data"))
        return fileSystem(evidence.fileSystem).allowsColons ? prebootDirectoryRole : "Other";
    if (!byType.empty()) return byType;
    return evidence.isEncrypted || std::any_of(mounts.begin(), mounts.end(), isBelowDataFolder) ? "Data" : "Other";
}

}  // namespace

bool isRoleName(std::string_view text) { return std::find(roles.begin(), roles.end(), text) != roles.end(); }

std::string roleNames() {
    std::string text;
    for (const auto role : roles) text.append(text.empty() ? "" : role == roles.back() ? " and " : ", ").append(role);
    return text;
}

std::string roleOf(const RoleEvidence& evidence, const VolumeSettings& settings,
                   std::string_view prebootDirectoryRole) {
    if (auto role = roleBySettings(evidence, settings)) return *role;
    return std::string(roleByEvidence(evidence, prebootDirectoryRole));
}

bool isBelowDataFolder(std::string_view path) {
    for (const std::string_view folder : {"/home", "/srv", "/var"})
        if (path == folder || (path.starts_with(folder) && path[folder.size()] == '/')) return true;
    return false;
}

}  // namespace tarnwick
