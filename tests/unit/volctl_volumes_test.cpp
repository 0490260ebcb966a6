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

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

#include "base/visible_text.h"
#include "plist/xml_property_list.h"
#include "temporary_folder.h"
#include "volctl/answers.h"

namespace fs = std::filesystem;
using namespace tarnwick;

namespace {

ProbeAnswer answerOf(std::map<std::string, std::string>& values) {
    const auto& has = values["has"];
    const auto content = has.empty()                 ? Content::nothing
                         : has == "unknown"          ? Content::unknown
                         : has == "swap"             ? Content::swap
                         : has == "member"           ? Content::member
                         : has.starts_with("crypto") ? Content::encrypted
                                                     : Content::fileSystem;
    return {content,        has == "unknown" ? "" : has, values["uuid"],    values["label"],
            values["part"], values["partuuid"],          values["partname"]};
}

class RecordedMachine {
public:
    RecordedMachine() { fs::create_directories(root_ / "class/block"); }

    void add(const std::string& line) {
        std::istringstream words(line);
        std::string first, rest;
        std::getline(std::getline(words, first, ' '), rest);
        if (first == "mount") {
            mounts_ += rest + '\n';
        } else if (first == "settings") {
            const auto list = parsePropertyList("<plist version=\"1.0\"><dict>" + rest + "</dict></plist>");
            const auto reading = readVolumeSettings(*list->as<PropertyListDictionary>());
            EXPECT_EQ(reading.problem, "");
            settings_ = reading.settings;
        } else if (first == "ask") {
            asked_.push_back(rest);
        } else {
            addFolder(root_ / "devices" / first, std::istringstream(rest));
        }
    }

    // The mounts, the volumes, the number of containers in the listing, and the answers.
    std::string found() {
        std::ofstream(root_ / "mountinfo") << mounts_;
        const Machine machine{readBlockDevices(root_),
                              readVisibleMounts(root_ / "mountinfo"),
                              settings_,
                              [&](const BlockDevice& device) { return answers_[device.name]; },
                              [](const std::string& path) { return !path.ends_with("file"); },
                              [](const std::string& path) { return path == "/dev/disk/link" ? makedev(8, 77) : 0; },
                              {}};
        std::ostringstream text;
        for (const auto& mount : machine.mounts)
            text << (text.tellp() > 0 ? " " : "") << mount.type << ':' << mount.target;
        const auto volumes = findVolumes(machine);
        for (const auto& volume : volumes)
            text << '\n'
                 << volume.container << ' ' << volume.group << ' ' << volume.deviceIdentifier << ' ' << volume.name
                 << ' ' << volume.role << (volume.mountPoint.empty() ? "" : " at ") << volume.mountPoint
                 << (volume.locked ? " locked" : "") << (volume.exclusionReason.empty() ? "" : " left out");
        const auto listing = writeXmlPropertyList(groupListing(volumes));
        const std::regex container("ContainerReference");
        text << "\nlisted in "
             << std::distance(std::sregex_iterator(listing.begin(), listing.end(), container), std::sregex_iterator());
        for (const auto& identifier : asked_) {
            const auto answer = lookUpVolume(machine, volumes, identifier).volume;
            text << "\n\"" << identifier << "\": " << (answer ? answer->deviceIdentifier : "none")
                 << (answer && !answer->mountPoint.empty() ? " " + answer->mountPoint : "");
        }
        return text.str() + '\n';
    }

private:
    void addFolder(const fs::path& home, std::istringstream words) {
        std::map<std::string, std::string> values;
        for (std::string word; words >> word;) values[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
        fs::create_directories(home / "slaves");
        if (home.native().find("/block/") == std::string::npos) {
            fs::create_symlink(root_ / "bus" / values["bus"], home / "subsystem");
        } else {
            values.emplace("dev", "8:" + std::to_string(200 + answers_.size()));
            values.emplace("size", "2048");
            fs::create_symlink(home, root_ / "class/block" / home.filename());
            answers_[home.filename()] = answerOf(values);
        }
        std::istringstream names(values["on"]);
        for (std::string name; std::getline(names, name, ',');) {
            fs::create_directory(home / "slaves" / name);
            fs::create_directories(root_ / "class/block" / name / "holders" / home.filename());
        }
        for (const auto& [name, text] : values) {
            fs::create_directories((home / name).parent_path());
            std::ofstream(home / name) << text << '\n';
        }
    }

    TemporaryFolder temporary_;
    const fs::path root_ = temporary_.path;
    std::string mounts_;
    VolumeSettings settings_;
    std::map<std::string, ProbeAnswer> answers_;
    std::vector<std::string> asked_;
};

TEST(Volumes, AreThoseThatTheMachineHas) {
    std::ifstream file(TEST_DATA "/machines.txt");
    int machines = 0;
    for (std::string title, line; std::getline(file, title); ++machines) {
        RecordedMachine machine;
        std::string expected;
        while (std::getline(file, line) && !line.empty())
            if (line.front() == '>')
                expected += line.substr(std::min<std::size_t>(line.size(), 2)) + '\n';
            else
                machine.add(line);
        EXPECT_EQ(machine.found(), expected) << title;
    }
    EXPECT_GT(machines, 30);
}

TEST(VolumeSettings, RejectsValuesOfAnotherTypeAndUnknownRoles) {
    struct Row {
        std::string keys;
        std::string problem;
        std::string prebootDirectory;  // a listing shows the settings that can be used
    };
    const auto* const goodKey = "<key>PrebootDirectory</key><string>/service</string>";
    const Row rows[] = {
        {"<key>Roles</key><dict><key>a</key><string>Swap</string></dict>", "", "/service"},
        {"<key>Roles</key><array/>", "Roles is not a dictionary", "/boot"},
        {"<key>Roles</key><dict><key>a</key><true/></dict>", "the role of a is not a string", "/boot"},
        {"<key>PrebootDirectory</key><true/>", "PrebootDirectory is not a string", "/boot"},
        {"<key>IncludeRemovable</key><integer>1</integer>", "IncludeRemovable is not a boolean", "/boot"},
        {"<key>Roles</key><dict><key>a</key><string>data</string></dict>",
         "unknown role \"data\" of a; the roles are Preboot, Data, System, Swap and Other", "/service"},
    };
    for (const auto& row : rows) {
        const auto list = parsePropertyList("<plist version=\"1.0\"><dict>" + (goodKey + row.keys) + "</dict></plist>");
        const auto reading = readVolumeSettings(*list->as<PropertyListDictionary>());
        EXPECT_EQ(reading.problem, row.problem);
        EXPECT_EQ(reading.settings.prebootDirectory, row.prebootDirectory) << row.keys;
    }
}

TEST(VisibleText, LetsNoControlOrForeignByteThrough) {
    EXPECT_EQ(visibleText("\xc3\xa9\xf0\x9f\x92\xbe [~"), "\xc3\xa9\xf0\x9f\x92\xbe [~");
    for (const auto* raw :
         {"\x1b", "\n", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
        const auto visible = visibleText(raw);
        EXPECT_TRUE(visible.size() == 4 * std::strlen(raw) && visible.starts_with("\\x")) << visible;
    }
    EXPECT_EQ(visibleText("\xe2\x82["), "\\xe2\\x82[");
    EXPECT_TRUE(isPlainName("/mnt/A b_1.x-y:@+,=~"));
    for (const char each : {'$', '"', '\'', '\\', ';', '\n', '\t', '*', '%', '!', '\xc3'})
        EXPECT_FALSE(isPlainName(std::string("a") + each)) << each;
}

}  // namespace
