// The volumes found on the machines that tests/data/machines.txt records. A paragraph is a machine: its first line
// names what it shows, the lines that begin with ">" are the result, and the others are, in any order:
//   mount LINE          a line of /proc/self/mountinfo
//   settings KEYS       the keys of volumes.plist
//   ask ID              an identifier to look up
//   PATH KEY=VALUE...   a folder below /sys/devices: a device if its path has "/block/"
// A device contains what has= (a type, or "unknown"), uuid=, label=, part=, partuuid= and partname= say, and its lower
// devices are on=A,B. The subsystem of another folder is bus=. Every key is also a file of the folder with its value.
#include "volctl/volumes.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <sstream>

#include "plist/xml_property_list.h"
#include "temporary_folder.h"
#include "volctl/answers.h"
#include "volctl/volume_lookup.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

ProbeAnswer answerOf(std::map<std::string, std::string>& values) {
    using enum Content;
    static const std::map<std::string, Content> others = {
        {"", nothing}, {"unknown", unknown}, {"swap", swap}, {"member", member}, {"crypto_LUKS", encrypted}};
    const auto& has = values["has"];
    const auto content = others.contains(has) ? others.at(has) : fileSystem;
    const auto type = content == unknown ? "" : has;
    return {content, type, values["uuid"], values["label"], values["part"], values["partuuid"], values["partname"]};
}

SettingsReading settingsOf(const std::string& keys) {
    const auto list = parsePropertyList("<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    return readVolumeSettings(*list->as<PropertyListDictionary>());
}

std::string prefixed(const std::string& prefix, const std::string& text) { return text.empty() ? "" : prefix + text; }

class RecordedMachine {
public:
    RecordedMachine() { fs::create_directories(root_.path / "class/block"); }

    void add(const std::string& line) {
        std::istringstream words(line);
        std::string first, rest;
        std::getline(words, first, ' ');
        if (first.find('/') != std::string::npos) return addFolder(root_.path / "devices" / first, words);
        std::getline(words, rest);
        if (first == "settings") machine_.settings = settingsOf(rest).settings;
        if (first == "mount") mountinfo_ += rest + '\n';
        if (first == "ask") asked_.push_back(rest);
    }

    // The mounts, the volumes, the number of containers in the listing, and the answers.
    std::string found() {
        machine_.devices = readBlockDevices(root_.path);
        machine_.mounts = *readVisibleMounts(root_.write("mountinfo", mountinfo_));
        machine_.probe = [&](const BlockDevice& device) { return answers_[device.name]; };
        machine_.isDirectory = [](const std::string& path) { return !path.ends_with("file"); };
        machine_.nodeNumber = [](const std::string& path) { return path == "/dev/disk/link" ? makedev(8, 77) : 0; };
        std::string text;
        for (const auto& mount : machine_.mounts)
            text += prefixed(text.empty() ? "" : " ", mount.type + ':' + mount.target);
        const auto volumes = findVolumes(machine_);
        for (const auto& each : volumes)
            text += '\n' + each.container + ' ' + each.group + ' ' + each.deviceIdentifier + ' ' + each.name + ' ' +
                    each.role + prefixed(" at ", each.mountPoint) + (each.locked ? " locked" : "") +
                    (each.exclusionReason.empty() ? "" : " left out");
        const auto listing = *groupListing(volumes).as<PropertyListDictionary>();
        text += "\nlisted in " + std::to_string(findValueAs<PropertyListArray>(listing, "Containers")->size()) + '\n';
        for (const auto& identifier : asked_) {
            const auto answer = lookUpVolume(machine_, volumes, identifier);
            text += '"' + identifier + "\": " + (answer ? answer->deviceIdentifier : "none");
            text += (answer ? prefixed(" ", answer->mountPoint) : "") + '\n';
        }
        return text;
    }

private:
    void addFolder(const fs::path& home, std::istream& words) {
        std::map<std::string, std::string> values;
        for (std::string word; words >> word;) values[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
        fs::create_directories(home / "slaves");
        if (home.native().find("/block/") == std::string::npos) {
            fs::create_symlink(root_.path / "bus" / values["bus"], home / "subsystem");
        } else {
            values.insert({{"dev", "8:" + std::to_string(200 + answers_.size())}, {"size", "2048"}});
            fs::create_symlink(home, root_.path / "class/block" / home.filename());
            answers_[home.filename()] = answerOf(values);
        }
        std::istringstream names(values["on"]);
        for (std::string name; std::getline(names, name, ',');) {
            fs::create_directory(home / "slaves" / name);
            fs::create_directories(root_.path / "class/block" / name / "holders" / home.filename());
        }
        for (const auto& [name, text] : values) root_.write(home / name, text + '\n');
    }

    TemporaryFolder root_;
    std::string mountinfo_;
    std::vector<std::string> asked_;
    Machine machine_;
    std::map<std::string, ProbeAnswer> answers_;
};

TEST(Volumes, MatchEachRecordedMachine) {
    std::ifstream file(TEST_DATA "/machines.txt");
    int machines = 0;
    for (std::string title, line; std::getline(file, title); ++machines) {
        RecordedMachine machine;
        std::string expected;
        while (std::getline(file, line) && !line.empty())
            if (line.front() == '>')
                expected += line.erase(0, 2) + '\n';
            else
                machine.add(line);
        EXPECT_EQ(machine.found(), expected) << title;
    }
    EXPECT_GT(machines, 30);
}

TEST(VolumeSettings, RejectsWrongTypesAndUnknownRoles) {
    for (const std::string role : {"<string>data</string>", "<true/>"})
        EXPECT_FALSE(settingsOf("<key>Roles</key><dict><key>a</key>" + role + "</dict>").status) << role;
    for (const auto* key : {"Roles", "PrebootDirectory", "IncludeRemovable"})
        EXPECT_FALSE(settingsOf("<key>" + std::string(key) + "</key><integer>1</integer>").status) << key;
}

}  // namespace
