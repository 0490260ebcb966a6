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
    const auto& has = values["has"];
    const auto content = has.empty()            ? Content::nothing
                         : has == "unknown"     ? Content::unknown
                         : has == "swap"        ? Content::swap
                         : has == "member"      ? Content::member
                         : has == "crypto_LUKS" ? Content::encrypted
                                                : Content::fileSystem;
    const auto type = content == Content::unknown ? std::string() : has;
    return {content, type, values["uuid"], values["label"], values["part"], values["partuuid"], values["partname"]};
}

SettingsReading settingsOf(const std::string& keys) {
    const auto list = parsePropertyList("<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    return readVolumeSettings(*list->as<PropertyListDictionary>());
}

class RecordedMachine {
public:
    RecordedMachine() { fs::create_directories(root_.path / "class/block"); }

    void add(const std::string& line) {
        std::istringstream words(line);
        std::string first, rest;
        std::getline(words, first, ' ');
        if (first.find('/') != std::string::npos) return addFolder(root_.path / "devices" / first, words);
        std::getline(words, rest);
        lines_[first].push_back(rest);
    }

    // The mounts, the volumes, the number of containers in the listing, and the answers.
    std::string found() {
        for (const auto& keys : lines_["settings"]) machine_.settings = settingsOf(keys).settings;
        std::ofstream mountinfo(root_.path / "mountinfo");
        for (const auto& mount : lines_["mount"]) mountinfo << mount << std::endl;
        machine_.devices = readBlockDevices(root_.path);
        machine_.mounts = *readVisibleMounts(root_.path / "mountinfo");
        machine_.probe = [&](const BlockDevice& device) { return answers_[device.name]; };
        machine_.isDirectory = [](const std::string& path) { return !path.ends_with("file"); };
        machine_.nodeNumber = [](const std::string& path) { return path == "/dev/disk/link" ? makedev(8, 77) : 0; };
        std::ostringstream text;
        for (const auto& mount : machine_.mounts)
            text << (text.tellp() > 0 ? " " : "") << mount.type << ':' << mount.target;
        const auto volumes = findVolumes(machine_);
        for (const auto& volume : volumes)
            text << '\n'
                 << volume.container << ' ' << volume.group << ' ' << volume.deviceIdentifier << ' ' << volume.name
                 << ' ' << volume.role << (volume.mountPoint.empty() ? "" : " at ") << volume.mountPoint
                 << (volume.locked ? " locked" : "") << (volume.exclusionReason.empty() ? "" : " left out");
        const auto listing = *groupListing(volumes).as<PropertyListDictionary>();
        text << "\nlisted in " << findValueAs<PropertyListArray>(listing, "Containers")->size();
        for (const auto& identifier : lines_["ask"]) {
            const auto answer = lookUpVolume(machine_, volumes, identifier);
            text << "\n\"" << identifier << "\": " << (answer ? answer->deviceIdentifier : "none")
                 << (answer && !answer->mountPoint.empty() ? " " + answer->mountPoint : "");
        }
        return text.str() + '\n';
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
        for (const auto& [name, text] : values) {
            fs::create_directories((home / name).parent_path());
            std::ofstream(home / name) << text << '\n';
        }
    }

    TemporaryFolder root_;
    std::map<std::string, std::vector<std::string>> lines_;  // by first word
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
    const struct {
        const char* name;
        std::string keys, problem;
        const char* prebootDirectory = "/boot";  // the defaults, after a value of a wrong type
    } rows[] = {
        {"good", "<key>Roles</key><dict><key>a</key><string>Swap</string></dict>", "", "/service"},
        {"roles in an array", "<key>Roles</key><array/>", "Roles is not a dictionary"},
        {"role as a boolean", "<key>Roles</key><dict><key>a</key><true/></dict>", "the role of a is not a string"},
        {"folder as a boolean", "<key>PrebootDirectory</key><true/>", "PrebootDirectory is not a string"},
        {"number for a boolean", "<key>IncludeRemovable</key><integer>1</integer>",
         "IncludeRemovable is not a boolean"},
        {"role in lower case", "<key>Roles</key><dict><key>a</key><string>data</string></dict>",
         "unknown role \"data\" of a; the roles are Preboot, Data, System, Swap and Other", "/service"},
    };
    for (const auto& row : rows) {
        const auto reading = settingsOf("<key>PrebootDirectory</key><string>/service</string>" + row.keys);
        EXPECT_EQ(reading.status ? "" : reading.status.error().text, row.problem) << row.name;
        EXPECT_EQ(reading.settings.prebootDirectory, row.prebootDirectory) << row.name;
    }
}

}  // namespace
