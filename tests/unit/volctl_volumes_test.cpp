#include "volctl/volumes.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "platform/xml_property_list.h"
#include "temporary_folder.h"
#include "volctl/answers.h"

namespace fs = std::filesystem;
using namespace tarnwick;
using namespace std::literals;

namespace {

using Lines = std::vector<std::string>;
using Values = std::map<std::string, std::string>;

// A machine written down, a statement on each line or between semicolons.
//   mount NUMBER TARGET TYPE SOURCE [ROOT]
//   PATH KEY=VALUE...   a folder below /sys/devices: a device if its path has "/block/", below another one a partition
// Of a device, has= (a type, or "unknown"), uuid=, label=, part=, partuuid= and partname= tell what it holds, on=A,B on
// what it stands, crypt=NAME or lvm=NAME how it is mapped; of another folder, bus= is its subsystem. All other keys are
// files with their content; dev and size have defaults.
class RecordedMachine {
public:
    explicit RecordedMachine(std::string text) {
        fs::create_directories(root_ / "class/block");
        std::replace(text.begin(), text.end(), ';', '\n');
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) add(std::istringstream(line));
    }

    Machine machine() {
        Machine machine{readBlockDevices(root_), {}, settings, {}, {}, {}};
        std::ofstream(root_ / "mountinfo") << mounts_;
        machine.mounts = readVisibleMounts(root_ / "mountinfo");
        machine.probe = [this](const BlockDevice& device) {
            probed.insert(device.name);
            return answers_[device.name];
        };
        machine.isDirectory = [](const std::string& path) { return path.find("file") == std::string::npos; };
        machine.nodeNumber = [](const std::string& path) { return path == "/dev/disk/link" ? makedev(8, 77) : 0; };
        return machine;
    }

    // One line a volume: "container/group/device name role mount-point" and what is special about it.
    Lines volumes() {
        Lines lines;
        for (const auto& volume : findVolumes(machine()))
            lines.push_back(volume.container + "/" + volume.group + "/" + volume.deviceIdentifier + " " + volume.name +
                            " " + volume.role + " " + (volume.mountPoint.empty() ? "-" : volume.mountPoint) +
                            (volume.locked ? " locked" : "") + (volume.leftOutBecause.empty() ? "" : " left out"));
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

private:
    void add(std::istringstream words) {
        std::string path;
        if (!(words >> path)) return;
        if (path == "mount") return mount(words);
        Values values;
        for (std::string word; words >> word;) values[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
        const auto home = root_ / "devices" / path;
        fs::create_directories(home);
        if (path.find("/block/") == std::string::npos) {
            fs::create_symlink(root_ / "bus" / values["bus"], home / "subsystem");
        } else {
            device(home, values);
        }
        for (const auto& [name, text] : values) {
            fs::create_directories((home / name).parent_path());
            std::ofstream(home / name) << text << '\n';
        }
    }

    void mount(std::istringstream& words) {
        std::string number, target, type, source, below = "/";
        words >> number >> target >> type >> source >> below;
        mounts_ += std::to_string(mountCount_ + 1) + (mountCount_ == 0 ? " 0 " : " 1 ") + number + " " + below + " " +
                   target + " rw - " + type + " " + source + " rw\n";
        ++mountCount_;
    }

    void device(const fs::path& home, Values& values) {
        values.emplace("dev", "8:" + std::to_string(++deviceCount_));
        values.emplace("size", "2048");
        if (fs::exists(home.parent_path() / "size")) values["partition"] = "1";
        if (values.contains("crypt")) values["dm/uuid"] = "CRYPT-LUKS2-" + std::string(32, 'a') + "-home";
        if (values.contains("lvm")) values["dm/uuid"] = "LVM-" + std::string(64, 'x') + values["hidden-as"];
        if (values.contains("dm/uuid")) values.emplace("dm/name", values["crypt"] + values["lvm"]);
        fs::create_symlink(home, root_ / "class/block" / home.filename());
        fs::create_directories(home / "slaves");
        std::istringstream names(values["on"]);
        for (std::string name; std::getline(names, name, ',');) {
            fs::create_directory(home / "slaves" / name);
            fs::create_directories(root_ / "class/block" / name / "holders" / home.filename());
        }
        static const std::map<std::string, Content> kinds{{"", Content::nothing},
                                                          {"unknown", Content::unknown},
                                                          {"swap", Content::swap},
                                                          {"crypto_LUKS", Content::encrypted},
                                                          {"member", Content::member}};
        const auto kind = kinds.find(values["has"]);
        answers_[home.filename()] = {kind == kinds.end() ? Content::fileSystem : kind->second,
                                     values["has"] == "unknown" ? "" : values["has"],
                                     values["uuid"],
                                     values["label"],
                                     values["part"],
                                     values["partuuid"],
                                     values["partname"]};
    }

    TemporaryFolder temporary_;
    const fs::path root_ = temporary_.path;
    std::string mounts_;
    std::map<std::string, ProbeAnswer> answers_;
    int deviceCount_ = 0, mountCount_ = 0;
};

const std::string nvme = R"(
    pci/nvme0/block/nvme0c0n1 hidden=1; pci/nvme1/block/nvme0n1 dev=259:0
    pci/nvme1/block/nvme0n1/nvme0n1p1 has=vfat label=EFI part=c12a7328-f81f-11d2-ba4b-00a0c93ec93b
    pci/nvme1/block/nvme0n1/nvme0n1p2 dev=259:2 has=ext4 partname=boot part=bc13c2ff-59e6-4262-a352-b275fd6f7172
    pci/nvme1/block/nvme0n1/nvme0n1p3 dev=259:3 has=ext4 label=root part=0x83
    pci/nvme1/block/nvme0n1/nvme0n1p10 has=swap; pci/nvme1/block/nvme0n1/nvme0n1p4
    virtual/block/ram0; virtual/block/zram0; virtual/block/loop0; pci/block/sr0 size=0
    mount 259:3 / ext4 /dev/nvme0n1p3; mount 259:2 /boot ext4 /dev/nvme0n1p2)";
const std::string btrfs =
    "pci/block/sda; pci/block/sda/sda1 has=btrfs uuid=B label=pool; pci/block/sdb has=btrfs uuid=B label=pool;";
const std::string subvolumes = "mount 0:30 / btrfs /dev/sdb /@rootfs; mount 0:30 /home btrfs /dev/sdb /@home;";

struct Scenario {
    std::string machine;  // behind a line that says what it shows
    Lines volumes;
    std::map<std::string, Lines> lookUps = {};  // an answer, and the identifiers that find it
};

const Scenario scenarios[] = {
    {"a plain disk\n" + nvme,
     {"nvme0n1/nvme0n1p1/nvme0n1p1 EFI System -", "nvme0n1/nvme0n1p2/nvme0n1p2 boot Preboot /boot",
      "nvme0n1/nvme0n1p3/nvme0n1p3 root Data /", "nvme0n1/nvme0n1p10/nvme0n1p10 nvme0n1p10 Other -"},
     {{"nvme0n1p2 /boot", {"Preboot", "/boot/", "boot"}},
      {"nvme0n1p1 ", {"/dev/nvme0n1p1"}},
      {"-", {"nvme0n1", "nvme0n1p4", ""}}}},
    {R"(an encrypted partition is one volume, locked or open
        pci/block/sda; pci/block/sda/sda1 has=crypto_LUKS part=0fc63daf-8483-4772-8e79-3d69d8477de4
        pci/block/sda/sda2 has=crypto_LUKS part=0fc63daf-8483-4772-8e79-3d69d8477de4
        virtual/block/dm-0 dev=253:0 crypt=home on=sda2 has=ext4 label=people
        mount 0:5 / overlay overlay; mount 253:0 /mnt ext4 /dev/mapper/home)",
     {"overlay/overlay/overlay overlay Data /", "sda/sda1/sda1 sda1 Data - locked", "sda/sda2/dm-0 people Data /mnt"},
     {{"dm-0 /mnt", {"sda2", "/dev/sda2", "dm-0", "/dev/mapper/home", "people", "/mnt"}}}},
    {R"(a volume group shows its logical volumes and no hidden layers
        pci/block/sda; pci/block/sda/sda3 has=crypto_LUKS; virtual/block/dm-0 crypt=crypt on=sda3 has=member
        virtual/block/dm-1 dev=253:1 lvm=my--vg-root on=dm-0 has=xfs
        virtual/block/dm-2 lvm=my--vg-swap_1 on=dm-0 has=swap
        virtual/block/dm-3 lvm=my--vg-pool-tpool hidden-as=-tpool on=dm-0 has=unknown
        virtual/block/dm-5 lvm=my--vg-safe on=dm-0 has=crypto_LUKS; virtual/block/dm-4 crypt=secret on=dm-5 has=ext4
        mount 253:1 / xfs /dev/mapper/my--vg-root)",
     {"my-vg/dm-1/dm-1 my--vg-root Data /", "my-vg/dm-2/dm-2 my--vg-swap_1 Other -", "my-vg/dm-5/dm-4 secret Other -"}},
    {R"(multipath and arrays appear once, by their top holder
        pci/block/sda has=ext4; pci/block/sdb has=ext4
        pci/block/sdc; pci/block/sdc/sdc1 has=member; pci/block/sdd has=member
        virtual/block/dm-0 dm/name=mpatha dm/uuid=mpath-3600 on=sda,sdb
        virtual/block/dm-1 dev=253:1 dm/name=mpatha-part1 dm/uuid=part1-mpath-3600 on=dm-0 has=ext4 label=paths
        virtual/block/md0 on=sdc1,sdd; virtual/block/md0/md0p1 dev=259:7 has=xfs
        mount 253:1 / ext4 /dev/mapper/mpatha-part1; mount 259:7 /srv xfs /dev/md0p1)",
     {"dm-0/dm-1/dm-1 paths Data /", "md0/md0p1/md0p1 md0p1 Data /srv"}},
    {"one btrfs is one volume, at its shortest mount\n" + btrfs + subvolumes,
     {"sda1/sda1/sda1 pool Data /"},
     {{"sda1 /", {"sdb", "/home"}}}},
    {"or rather at the mount of its root\n" + btrfs + subvolumes + "mount 0:30 /mnt/whole btrfs /dev/sda1",
     {"sda1/sda1/sda1 pool Data /mnt/whole"}},
    {"a user-space driver may claim any source\n" + btrfs + "mount 0:31 /home fuse.evil /dev/sda1",
     {"sda1/sda1/sda1 pool Other -"}},
    {R"(what refuses the probe still counts
        pci/block/vda dev=254:0 has=unknown; pci/block/vdb has=unknown; pci/block/vdc; mount 254:0 / ext4 /dev/root)",
     {"vda/vda/vda vda Data /", "vdb/vdb/vdb vdb Other -"}},
    {"without a known device only the root counts\nmount 0:40 / zfs rpool/ROOT/debian; mount 0:41 /home zfs rpool/home",
     {"rpool/ROOT/debian/rpool/ROOT/debian/rpool/ROOT/debian rpool/ROOT/debian Data /"},
     {{"rpool/ROOT/debian /", {"rpool/ROOT/debian"}}}},
    {"and by its number where its name is odd\nmount 0:40 / nfs $(x):/root", {"0:40/0:40/0:40 0:40 Data /"}},
    {R"(seen through a loop device it keeps its name
        pci/block/sda; pci/block/sda/sda2 has=ext4
        virtual/block/loop0 dev=7:0 loop/backing_file=/dev/sda2 loop/offset=0 loop/sizelimit=0 has=ext4
        virtual/block/loop1 loop/backing_file=/srv/image loop/offset=0 loop/sizelimit=0 has=ext4
        virtual/block/loop2 loop/backing_file=/dev/sda2 loop/offset=512 loop/sizelimit=0 has=ext4
        mount 7:0 / ext4 /dev/loop0)",
     {"loop1/loop1/loop1 loop1 Other -", "loop2/loop2/loop2 loop2 Other -", "sda/sda2/sda2 sda2 Data /"}},
    {R"(names that a shell would read are left out
        pci/block/sda dev=8:1 has=ext4 label=$(reboot); pci/block/sdb dev=8:2 has=ext4
        pci/block/sdc dev=8:77 has=ext4 label=$(reboot); mount 8:1 / ext4 /dev/sda
        mount 8:2 /srv/$(reboot) ext4 /dev/sdb; mount 8:77 /srv/a\040b ext4 /dev/sdc)",
     {"sda/sda/sda $(reboot) Data /", "sdb/sdb/sdb sdb Data /srv/$(reboot) left out",
      "sdc/sdc/sdc $(reboot) Data /srv/a b"},
     {{"sdc /srv/a b", {"/srv/a b", "/dev/disk/link"}}, {"-", {"sdb", "/dev/disk/other", "$(reboot)"}}}},
    {R"(a bound file is no mount point
        pci/block/sda dev=8:1 has=ext4; mount 0:9 / overlay overlay; mount 8:1 /file ext4 /dev/sda /c/file
        mount 8:1 /srv/data ext4 /dev/sda /c/data)",
     {"overlay/overlay/overlay overlay Data /", "sda/sda/sda sda Data /srv/data"}},
    {R"(Preboot is the mounted one of its role that allows colons
        pci/block/sda has=vfat part=bc13c2ff-59e6-4262-a352-b275fd6f7172
        pci/block/sdb has=ext4 part=bc13c2ff-59e6-4262-a352-b275fd6f7172
        pci/block/sdc dev=8:3 has=ext4 part=bc13c2ff-59e6-4262-a352-b275fd6f7172; mount 8:3 /b ext4 /dev/sdc)",
     {"sda/sda/sda sda Preboot -", "sdb/sdb/sdb sdb Preboot -", "sdc/sdc/sdc sdc Preboot /b"},
     {{"sdc /b", {"Preboot"}}}},
};

TEST(Volumes, AreThoseThatTheMachineHas) {
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(scenario.machine);
        RecordedMachine recorded(scenario.machine.substr(scenario.machine.find('\n')));
        EXPECT_EQ(recorded.volumes(), scenario.volumes);
        for (const auto& [answer, identifiers] : scenario.lookUps)
            for (const auto& identifier : identifiers) EXPECT_EQ(recorded.lookUp(identifier), answer) << identifier;
    }
}

TEST(Volumes, OnDisksThatComeAndGoAreLeftOutUnread) {
    RecordedMachine recorded(R"(
        pci/usb1 bus=usb removable=unknown; pci/usb1/1-1 bus=usb removable=removable
        pci/usb1/1-1/block/sda; pci/usb1/1-1/block/sda/sda1; virtual/block/dm-0 crypt=stick on=sda1 has=ext4
        pci/usb1/1-2 bus=usb removable=fixed; pci/usb1/1-2/block/sdb has=ext4
        pci/mmc0 bus=mmc type=SD; pci/mmc0/block/mmcblk0 has=vfat
        pci/mmc1 bus=mmc type=MMC; pci/mmc1/block/mmcblk1 has=ext4
        pci/block/sr0 removable=1 has=iso9660; pci/bridge removable=removable; pci/bridge/nvme/block/nvme0n1 has=ext4)");
    EXPECT_EQ(recorded.volumes(),
              (Lines{"mmcblk0/mmcblk0/mmcblk0 mmcblk0 Other - left out", "mmcblk1/mmcblk1/mmcblk1 mmcblk1 Other -",
                     "nvme0n1/nvme0n1/nvme0n1 nvme0n1 Other - left out", "sda/sda1/dm-0 dm-0 Other - left out",
                     "sdb/sdb/sdb sdb Other -", "sr0/sr0/sr0 sr0 Other - left out"}));
    EXPECT_EQ(recorded.probed, (std::set<std::string>{"mmcblk1", "sdb"}));
    EXPECT_EQ(recorded.lookUp("sda1"), "-");
    recorded.settings.includeRemovable = true;
    EXPECT_EQ(recorded.volumes().front(), "mmcblk0/mmcblk0/mmcblk0 mmcblk0 Other -");
}

TEST(Volumes, AnswerForPrebootByDirectoryUnlessColonsAreRefused) {
    const auto preboot = [](const std::string& mount, const char* folder = "/boot") {
        RecordedMachine recorded(
            "pci/block/sda dev=8:1 has=ext4; pci/block/sdb dev=8:2 has=vfat;"
            "mount 8:1 / ext4 /dev/sda;" +
            mount);
        recorded.settings.prebootDirectory = folder;
        return recorded.lookUp("Preboot");
    };
    EXPECT_EQ(preboot("mount 8:2 /efi vfat /dev/sdb"), "sda /boot");
    for (const auto* type : {"vfat", "fuseblk"}) EXPECT_EQ(preboot("mount 8:2 /boot "s + type + " /dev/sdb"), "-");
    for (const auto* folder : {"relative", "/boot;reboot", "", "/file"}) EXPECT_EQ(preboot("", folder), "-") << folder;
}

TEST(Volumes, NestInTheListingWithoutThoseLeftOut) {
    const auto listing = writeXmlPropertyList(groupListing(findVolumes(
        RecordedMachine(nvme + "; pci/block/sdc removable=1; pci/block/sdd has=ext4 label=\x1b[2J").machine())));
    const auto count = [&](const std::string& text) {
        int found = 0;
        for (auto at = listing.find(text); at != std::string::npos; at = listing.find(text, at + 1)) ++found;
        return found;
    };
    EXPECT_EQ(count("<key>ContainerReference</key>"), 2) << listing;
    EXPECT_EQ(count("<key>GroupReference</key>"), 5) << listing;
    EXPECT_EQ(count("<string>\\x1b[2J</string>"), 1) << listing;
}

}  // namespace
