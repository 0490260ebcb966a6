// A machine for tests, written down in a few lines.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "temporary_folder.h"
#include "volctl/volumes.h"

namespace tarnwick {

class RecordedMachine {
public:
    RecordedMachine() { std::filesystem::create_directories(root_ / "class/block"); }

    // One line a folder below /sys/devices: its path, then FILE=TEXT for what is in it. A path with "/block/" is a
    // device (dev and size have defaults; on=A,B names the devices that it stands on), one below a device a
    // partition; any other is an ancestor, whose bus=NAME gives its subsystem.
    RecordedMachine& devices(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) folder(line);
        return *this;
    }

    // One line a device: name, type, then uuid=, label=, part=, partuuid=, partname=. "nothing" and
    // "unknown" are types.
    RecordedMachine& content(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) answer(line);
        return *this;
    }

    // Lines of mountinfo.
    RecordedMachine& mounts(const std::string& text) {
        std::ofstream(root_ / "mountinfo") << text;
        return *this;
    }

    Machine machine() {
        Machine machine;
        machine.settings = settings;
        machine.devices = readBlockDevices(root_);
        machine.mounts = readVisibleMounts(root_ / "mountinfo");
        machine.probe = [this](const BlockDevice& device) {
            probed.insert(device.name);
            const auto known = answers_.find(device.name);
            return known == answers_.end() ? ProbeAnswer{Content::nothing, {}, {}, {}, {}, {}, {}} : known->second;
        };
        machine.isDirectory = [this](const std::string& path) { return !files.contains(path); };
        machine.nodeNumber = [this](const std::string& path) { return links.contains(path) ? links[path] : 0; };
        return machine;
    }

    // One line a volume: "container/group/device name role mount-point" and what is special about it.
    std::vector<std::string> volumes() {
        std::vector<std::string> lines;
        for (const auto& volume : findVolumes(machine())) {
            lines.push_back(volume.container + "/" + volume.group + "/" + volume.deviceIdentifier + " " + volume.name +
                            " " + volume.role + " " + (volume.mountPoint.empty() ? "-" : volume.mountPoint));
            if (volume.locked) lines.back() += " locked";
            if (!volume.leftOutBecause.empty()) lines.back() += " left out";
        }
        return lines;
    }

    // The device that the identifier finds, with the mount point; "-" when none.
    std::string lookUp(const std::string& identifier) {
        const auto world = machine();
        const auto found = lookUpVolume(world, findVolumes(world), identifier).volume;
        return found ? found->deviceIdentifier + " " + found->mountPoint : "-";
    }

    VolumeSettings settings;
    std::set<std::string> probed;
    std::set<std::string> files;         // paths that are no directory
    std::map<std::string, dev_t> links;  // below /dev, to a device's number

private:
    static std::map<std::string, std::string> values(std::istringstream& words) {
        std::map<std::string, std::string> found;
        for (std::string word; words >> word;) found[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
        return found;
    }

    void folder(const std::string& line) {
        namespace fs = std::filesystem;
        std::istringstream words(line);
        std::string path;
        if (!(words >> path)) return;
        auto files_ = values(words);
        const auto home = root_ / "devices" / path;
        fs::create_directories(home);
        if (path.find("/block/") != std::string::npos) {
            files_.emplace("dev", "8:" + std::to_string(++minor_));
            files_.emplace("size", "2048");
            if (fs::exists(home.parent_path() / "size")) files_["partition"] = "1";
            fs::create_symlink(home, root_ / "class/block" / home.filename());
            stack(home, files_["on"]);
        } else if (files_.contains("bus")) {
            fs::create_symlink(root_ / "bus" / files_["bus"], home / "subsystem");
        }
        for (const auto& [name, text] : files_) {
            fs::create_directories((home / name).parent_path());
            std::ofstream(home / name) << text << '\n';
        }
    }

    void stack(const std::filesystem::path& home, const std::string& below) {
        namespace fs = std::filesystem;
        fs::create_directories(home / "slaves");
        std::istringstream names(below);
        for (std::string name; std::getline(names, name, ',');) {
            fs::create_directory(home / "slaves" / name);
            fs::create_directories(root_ / "class/block" / name / "holders" / home.filename());
        }
    }

    void answer(const std::string& line) {
        static const std::map<std::string, Content> kinds{
            {"nothing", Content::nothing},    {"unknown", Content::unknown},
            {"swap", Content::swap},          {"crypto_LUKS", Content::encrypted},
            {"LVM2_member", Content::member}, {"linux_raid_member", Content::member},
        };
        std::istringstream words(line);
        std::string name, type;
        if (!(words >> name >> type)) return;
        auto known = values(words);
        const auto kind = kinds.find(type);
        const bool typeless = type == "nothing" || type == "unknown";
        answers_[name] = {kind == kinds.end() ? Content::fileSystem : kind->second,
                          typeless ? "" : type,
                          known["uuid"],
                          known["label"],
                          known["part"],
                          known["partuuid"],
                          known["partname"]};
    }

    TemporaryFolder temporary_;
    const std::filesystem::path root_ = temporary_.path;
    std::map<std::string, ProbeAnswer> answers_;
    int minor_ = 0;
};

}  // namespace tarnwick
