#include "block_devices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t sectorSize = 512;  // the unit of `size` in sysfs, whatever the sector size of the device is

std::string attribute(const fs::path& folder, const char* name) {
    std::ifstream file(folder / name);
    std::string line;
    std::getline(file, line);
    return line;
}

std::optional<std::uint64_t> number(std::string_view text) {
    std::uint64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end ? std::optional(value) : std::nullopt;
}

dev_t deviceNumber(const fs::path& folder) {
    const auto text = attribute(folder, "dev");
    const auto colon = text.find(':');
    if (colon == std::string::npos) return 0;
    const auto major = number(std::string_view(text).substr(0, colon));
    const auto minor = number(std::string_view(text).substr(colon + 1));
    return major && minor ? makedev(static_cast<unsigned>(*major), static_cast<unsigned>(*minor)) : 0;
}

// sysfs writes ! for a slash in a name such as cciss/c0d0.
std::string deviceName(const fs::path& folder) {
    auto name = folder.filename().native();
    std::replace(name.begin(), name.end(), '!', '/');
    return name;
}

std::vector<std::string> linkedDevices(const fs::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        names.push_back(deviceName(entry->path()));
    std::sort(names.begin(), names.end(), VersionOrder());
    return names;
}

enum class Attachment { unknown, builtIn, detachable };

// A disk on a hot-pluggable bus counts as detachable, unless the firmware reports that it is built in: some machines
// have their only disk on a soldered eMMC or an internal USB port.
Attachment attachmentOf(const fs::path& ancestor) {
    std::error_code error;
    const auto bus = fs::read_symlink(ancestor / "subsystem", error).filename().native();
    const auto fixture = attribute(ancestor, "removable");
    if (fixture == "removable" || bus == "firewire" || bus == "ieee1394" || bus == "pcmcia")
        return Attachment::detachable;
    if (bus == "usb" && !fixture.empty()) return fixture == "fixed" ? Attachment::builtIn : Attachment::detachable;
    if (bus == "mmc") return attribute(ancestor, "type") == "MMC" ? Attachment::builtIn : Attachment::detachable;
    return Attachment::unknown;
}

// The nearest ancestor that reports anything decides: above a built-in USB disk there is a root hub that reports
// nothing.
bool isDetachableDisk(const fs::path& folder) {
    if (attribute(folder, "removable") == "1") return true;
    for (auto ancestor = folder.parent_path(); ancestor.filename() != "devices" && ancestor.has_relative_path();
         ancestor = ancestor.parent_path()) {
        const auto attachment = attachmentOf(ancestor);
        if (attachment != Attachment::unknown) return attachment == Attachment::detachable;
    }
    return false;
}

bool isIgnored(const fs::path& folder, const BlockDevice& device) {
    const auto& name = device.name;
    return device.number == 0 || device.size == 0 || attribute(folder, "hidden") == "1" || name.starts_with("ram") ||
           name.starts_with("zram");
}

// The device that a loop device shows, if it shows all of it.
std::string loopView(const fs::path& folder) {
    const auto backing = attribute(folder / "loop", "backing_file");
    const bool whole = attribute(folder / "loop", "offset") == "0" && attribute(folder / "loop", "sizelimit") == "0";
    return whole && backing.starts_with("/dev/") ? backing.substr(5) : std::string();
}

bool isBackinglessLoop(const fs::path& folder, const BlockDevice& device) {
    return device.name.starts_with("loop") && device.wholeDisk.empty() &&
           attribute(folder / "loop", "backing_file").empty();
}

std::optional<BlockDevice> readDevice(const fs::path& entry) {
    std::error_code error;
    const auto folder = fs::canonical(entry, error);
    if (error) return std::nullopt;
    BlockDevice device;
    device.name = deviceName(folder);
    device.number = deviceNumber(folder);
    const auto sectors = number(attribute(folder, "size")).value_or(0);
    device.size = sectors > UINT64_MAX / sectorSize ? 0 : sectors * sectorSize;
    const bool partition = fs::exists(folder / "partition", error);
    if (partition) device.wholeDisk = deviceName(folder.parent_path());
    if (isIgnored(folder, device) || isBackinglessLoop(folder, device)) return std::nullopt;
    device.mapName = attribute(folder / "dm", "name");
    device.mapUuid = attribute(folder / "dm", "uuid");
    device.lower = linkedDevices(folder / "slaves");
    device.upper = linkedDevices(folder / "holders");
    device.viewOf = loopView(folder);
    device.detachable = !partition && isDetachableDisk(folder);
    return device;
}

const BlockDevice* findByNodeName(const BlockDevices& devices, const std::string& name) {
    if (const auto* found = findDevice(devices, name)) return found;
    for (const auto& [key, device] : devices)
        if (!device.mapName.empty() && name == "mapper/" + device.mapName) return &device;
    return nullptr;
}

// Drops links to devices that are not in the map, and makes the remaining links known at both ends.
void joinDevices(BlockDevices& devices) {
    for (auto& [name, device] : devices) {
        const auto unknown = [&](const std::string& other) { return !devices.contains(other); };
        std::erase_if(device.lower, unknown);
        std::erase_if(device.upper, unknown);
        const auto* shown = device.viewOf.empty() ? nullptr : findByNodeName(devices, device.viewOf);
        device.viewOf = shown ? shown->name : std::string();
        if (shown && device.lower.empty()) device.lower.push_back(shown->name);
        if (const auto disk = devices.find(device.wholeDisk); disk != devices.end()) disk->second.partitioned = true;
    }
}

bool isNodeOf(const struct stat& status, const BlockDevice& device) {
    return S_ISBLK(status.st_mode) && status.st_rdev == device.number;
}

}  // namespace

bool VersionOrder::operator()(const std::string& left, const std::string& right) const {
    return strverscmp(left.c_str(), right.c_str()) < 0;
}

BlockDevices readBlockDevices(const fs::path& sysfs) {
    BlockDevices devices;
    std::error_code error;
    for (fs::directory_iterator entry(sysfs / "class/block", error), end; !error && entry != end;
         entry.increment(error)) {
        if (auto device = readDevice(entry->path())) devices.emplace(device->name, std::move(*device));
    }
    joinDevices(devices);
    return devices;
}

const BlockDevice* findDevice(const BlockDevices& devices, const std::string& name) {
    const auto found = devices.find(name);
    return found == devices.end() ? nullptr : &found->second;
}

std::vector<const BlockDevice*> deviceStack(const BlockDevices& devices, const BlockDevice& top) {
    std::vector<const BlockDevice*> stack{&top};
    const auto add = [&](const std::string& name) {
        const auto* device = findDevice(devices, name);
        if (device && std::find(stack.begin(), stack.end(), device) == stack.end()) stack.push_back(device);
    };
    for (std::size_t i = 0; i < stack.size(); ++i) {
        const auto& device = *stack[i];
        for (const auto& name : device.lower) add(name);
        if (!device.wholeDisk.empty()) add(device.wholeDisk);
    }
    return stack;
}

Result<std::string> devicePath(const BlockDevice& device) {
    std::vector<std::string> candidates{"/dev/" + device.name};
    if (!device.mapName.empty()) candidates.push_back("/dev/mapper/" + device.mapName);
    candidates.push_back("/dev/block/" + std::to_string(major(device.number)) + ":" +
                         std::to_string(minor(device.number)));
    for (const auto& path : candidates) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && isNodeOf(status, device)) return path;
    }
    return Error{"no device node in /dev", ENXIO, device.name};
}

Result<FileDescriptor> openDevice(const BlockDevice& device) {
    const auto path = devicePath(device);
    if (!path) return path.error();
    // O_NONBLOCK, so that a drive without a medium does not block.
    FileDescriptor opened(::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!opened || ::fstat(opened.get(), &status) != 0) return systemError(errno, *path);
    if (!isNodeOf(status, device)) return Error{"replaced by another device", ENXIO, *path};
    return opened;
}

}  // namespace tarnwick
