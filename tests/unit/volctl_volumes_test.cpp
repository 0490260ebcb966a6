#include "volctl/volumes.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "recorded_machine.h"
#include "volctl/answers.h"

using namespace tarnwick;

namespace {

using Lines = std::vector<std::string>;

const std::string esp = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";
const std::string bootLoader = "bc13c2ff-59e6-4262-a352-b275fd6f7172";
const std::string generic = "0fc63daf-8483-4772-8e79-3d69d8477de4";
const std::string luksName(32, 'a');
const std::string lvmIds(64, 'x');

class Volumes : public testing::Test {
protected:
    RecordedMachine recorded;
};

TEST_F(Volumes, OnAnNvmeDiskAreItsFileSystems) {
    recorded
        .devices(
            "pci/nvme0/block/nvme0c0n1 hidden=1\n"
            "pci/nvme1/block/nvme0n1 dev=259:0\n"
            "pci/nvme1/block/nvme0n1/nvme0n1p1 dev=259:1\n"
            "pci/nvme1/block/nvme0n1/nvme0n1p2 dev=259:2\n"
            "pci/nvme1/block/nvme0n1/nvme0n1p3 dev=259:3\n"
            "pci/nvme1/block/nvme0n1/nvme0n1p10 dev=259:10\n"
            "pci/nvme1/block/nvme0n1/nvme0n1p4 dev=259:4\n"
            "virtual/block/ram0\nvirtual/block/zram0\nvirtual/block/loop0\npci/block/sr0 size=0\n")
        .content("nvme0n1p1 vfat label=EFI part=" + esp + "\nnvme0n1p2 ext4 part=" + bootLoader +
                 " partname=boot\nnvme0n1p3 ext4 label=root part=0x83\nnvme0n1p10 swap\n")
        .mounts("1 0 259:3 / / rw - ext4 /dev/nvme0n1p3 rw\n2 1 259:2 / /boot rw - ext4 /dev/nvme0n1p2 rw\n");
    EXPECT_EQ(recorded.volumes(),
              (Lines{"nvme0n1/nvme0n1p1/nvme0n1p1 EFI System -", "nvme0n1/nvme0n1p2/nvme0n1p2 boot Preboot /boot",
                     "nvme0n1/nvme0n1p3/nvme0n1p3 root Data /", "nvme0n1/nvme0n1p10/nvme0n1p10 nvme0n1p10 Other -"}));
    EXPECT_EQ(recorded.lookUp("Preboot"), "nvme0n1p2 /boot");
    EXPECT_EQ(recorded.lookUp("/dev/nvme0n1p1"), "nvme0n1p1 ");
    EXPECT_EQ(recorded.lookUp("/boot/"), "nvme0n1p2 /boot");
    EXPECT_EQ(recorded.lookUp("root"), "nvme0n1p3 /");
    EXPECT_EQ(recorded.lookUp("nvme0n1"), "-");
    EXPECT_EQ(recorded.lookUp("nvme0n1p4"), "-");
    EXPECT_EQ(recorded.lookUp(""), "-");
}

TEST_F(Volumes, OfAnEncryptedPartitionAreOneLockedOrOpen) {
    const std::string disk = "pci/block/sda\npci/block/sda/sda1 dev=8:1\npci/block/sda/sda2 dev=8:2\n";
    const std::string content =
        "sda1 crypto_LUKS uuid=L1 part=" + generic + "\nsda2 crypto_LUKS uuid=L2 part=" + generic;
    recorded.devices(disk + "virtual/block/dm-0 dev=253:0 dm/name=home dm/uuid=CRYPT-LUKS2-" + luksName + " on=sda2\n")
        .content(content + "\ndm-0 ext4 label=people\n")
        .mounts("1 0 0:5 / / rw - overlay overlay rw\n2 1 253:0 / /mnt rw - ext4 /dev/mapper/home rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"overlay/overlay/overlay overlay Data /", "sda/sda1/sda1 sda1 Data - locked",
                                         "sda/sda2/dm-0 people Data /mnt"}));
    for (const auto* identifier : {"sda2", "/dev/sda2", "dm-0", "/dev/mapper/home", "people", "/mnt"})
        EXPECT_EQ(recorded.lookUp(identifier), "dm-0 /mnt") << identifier;
}

TEST_F(Volumes, OfAVolumeGroupAreItsLogicalVolumesAndNoHiddenLayers) {
    recorded
        .devices(
            "pci/block/sda\npci/block/sda/sda3\n"
            "virtual/block/dm-0 dm/name=crypt dm/uuid=CRYPT-LUKS2-" +
            luksName +
            " on=sda3\n"
            "virtual/block/dm-1 dev=253:1 dm/name=my--vg-root dm/uuid=LVM-" +
            lvmIds +
            " on=dm-0\n"
            "virtual/block/dm-2 dm/name=my--vg-swap_1 dm/uuid=LVM-" +
            lvmIds +
            " on=dm-0\n"
            "virtual/block/dm-3 dm/name=my--vg-pool-tpool dm/uuid=LVM-" +
            lvmIds +
            "-tpool on=dm-0\n"
            "virtual/block/dm-5 dm/name=my--vg-safe dm/uuid=LVM-" +
            lvmIds +
            " on=dm-0\n"
            "virtual/block/dm-4 dm/name=secret dm/uuid=CRYPT-LUKS1-" +
            luksName + " on=dm-5\n")
        .content("sda3 crypto_LUKS\ndm-0 LVM2_member\ndm-1 xfs\ndm-2 swap\ndm-3 unknown\ndm-4 ext4\ndm-5 crypto_LUKS\n")
        .mounts("1 0 253:1 / / rw - xfs /dev/mapper/my--vg-root rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"my-vg/dm-1/dm-1 my--vg-root Data /", "my-vg/dm-2/dm-2 my--vg-swap_1 Other -",
                                         "my-vg/dm-5/dm-4 secret Other -"}));
}

TEST_F(Volumes, UnderMultipathAndArraysAppearOnceByTheirTopHolder) {
    recorded
        .devices(
            "pci/block/sda\npci/block/sdb\npci/block/sdc\npci/block/sdc/sdc1\npci/block/sdd\n"
            "virtual/block/dm-0 dm/name=mpatha dm/uuid=mpath-3600 on=sda,sdb\n"
            "virtual/block/dm-1 dev=253:1 dm/name=mpatha-part1 dm/uuid=part1-mpath-3600 on=dm-0\n"
            "virtual/block/md0 on=sdc1,sdd\n"
            "virtual/block/md0/md0p1 dev=259:7\n")
        .content(
            "sda ext4\nsdb ext4\ndm-1 ext4 label=paths\n"
            "sdc1 linux_raid_member\nsdd linux_raid_member\nmd0p1 xfs\n")
        .mounts("1 0 253:1 / / rw - ext4 /dev/mapper/mpatha-part1 rw\n2 1 259:7 / /srv rw - xfs /dev/md0p1 rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"dm-0/dm-1/dm-1 paths Data /", "md0/md0p1/md0p1 md0p1 Data /srv"}));
}

TEST_F(Volumes, OnDisksThatComeAndGoAreLeftOutUnread) {
    recorded
        .devices(
            "pci/usb1 bus=usb removable=unknown\npci/usb1/1-1 bus=usb removable=removable\n"
            "pci/usb1/1-1/block/sda\n"
            "pci/usb1/1-1/block/sda/sda1\n"
            "virtual/block/dm-0 dm/name=stick dm/uuid=CRYPT-LUKS2-" +
            luksName +
            " on=sda1\n"
            "pci/usb1/1-2 bus=usb removable=fixed\npci/usb1/1-2/block/sdb\n"
            "pci/mmc0 bus=mmc type=SD\npci/mmc0/block/mmcblk0\npci/mmc1 bus=mmc type=MMC\n"
            "pci/mmc1/block/mmcblk1\npci/block/sr0 removable=1\n"
            "pci/bridge bus=pci removable=removable\npci/bridge/nvme/block/nvme0n1\n")
        .content("dm-0 ext4\nsdb ext4\nmmcblk0 vfat\nmmcblk1 ext4\nsr0 iso9660\nnvme0n1 ext4\n")
        .mounts("");
    EXPECT_EQ(recorded.volumes(),
              (Lines{"mmcblk0/mmcblk0/mmcblk0 mmcblk0 Other - left out", "mmcblk1/mmcblk1/mmcblk1 mmcblk1 Other -",
                     "nvme0n1/nvme0n1/nvme0n1 nvme0n1 Other - left out", "sda/sda1/dm-0 dm-0 Other - left out",
                     "sdb/sdb/sdb sdb Other -", "sr0/sr0/sr0 sr0 Other - left out"}));
    EXPECT_EQ(recorded.probed, (std::set<std::string>{"mmcblk1", "sdb"}));
    EXPECT_EQ(recorded.lookUp("sda1"), "-");
    recorded.settings.includeRemovable = true;
    EXPECT_EQ(recorded.volumes().front(), "mmcblk0/mmcblk0/mmcblk0 mmcblk0 Other -");
}

TEST_F(Volumes, OfOneBtrfsAreOneWithTheMountOfItsRootOrTheShortest) {
    recorded.devices("pci/block/sda\npci/block/sda/sda1\npci/block/sdb\n")
        .content("sda1 btrfs uuid=B label=pool\nsdb btrfs uuid=B label=pool\n");
    const std::string subvolumes =
        "1 0 0:30 /@rootfs / rw - btrfs /dev/sdb rw\n"
        "2 1 0:30 /@home /home rw - btrfs /dev/sdb rw\n";
    recorded.mounts(subvolumes);
    EXPECT_EQ(recorded.volumes(), (Lines{"sda1/sda1/sda1 pool Data /"}));
    EXPECT_EQ(recorded.lookUp("sdb"), "sda1 /");
    EXPECT_EQ(recorded.lookUp("/home"), "sda1 /");
    recorded.mounts(subvolumes + "3 1 0:30 / /mnt/whole rw - btrfs /dev/sda1 rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"sda1/sda1/sda1 pool Data /mnt/whole"}));
    // Only root can name the source of a btrfs mount; a user-space driver may claim any.
    recorded.mounts("1 0 0:31 / /home rw - fuse.evil /dev/sda1 rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"sda1/sda1/sda1 pool Other -"}));
}

TEST_F(Volumes, ThatRefuseTheProbeStillCount) {
    recorded.devices("pci/block/vda dev=254:0\npci/block/vdb\npci/block/vdc\n")
        .content("vda unknown\nvdb unknown\n")
        .mounts("1 0 254:0 / / rw - ext4 /dev/root rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"vda/vda/vda vda Data /", "vdb/vdb/vdb vdb Other -"}));
    EXPECT_EQ(findVolumes(recorded.machine()).front().fileSystem, "ext4");
}

TEST_F(Volumes, WithoutAKnownDeviceCountOnlyAtTheRoot) {
    recorded.mounts("1 0 0:40 / / rw - zfs rpool/ROOT/debian rw\n2 1 0:41 / /home rw - zfs rpool/home rw\n");
    EXPECT_EQ(recorded.volumes().size(), 1U);
    EXPECT_EQ(recorded.lookUp("rpool/ROOT/debian"), "rpool/ROOT/debian /");
    recorded.mounts("1 0 0:40 / / rw - nfs $(x):/root rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"0:40/0:40/0:40 0:40 Data /"}));
}

TEST_F(Volumes, SeenThroughALoopDeviceKeepTheirName) {
    const std::string view = " loop/offset=0 loop/sizelimit=0\n";
    recorded
        .devices(
            "pci/block/sda\npci/block/sda/sda2 dev=8:2\n"
            "virtual/block/loop0 dev=7:0 loop/backing_file=/dev/sda2" +
            view + "virtual/block/loop1 dev=7:1 loop/backing_file=/srv/image" + view +
            "virtual/block/loop2 dev=7:2 loop/backing_file=/dev/sda2 loop/offset=512 loop/sizelimit=0\n")
        .content("sda2 ext4\nloop0 ext4\nloop1 ext4\nloop2 ext4\n")
        .mounts("1 0 7:0 / /run/tarnwick/volumes/sda2 ro - ext4 /dev/loop0 ro\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"loop1/loop1/loop1 loop1 Other -", "loop2/loop2/loop2 loop2 Other -",
                                         "sda/sda2/sda2 sda2 Other /run/tarnwick/volumes/sda2"}));
}

TEST_F(Volumes, WithNamesThatAShellWouldReadAreLeftOut) {
    recorded.devices("pci/block/sda dev=8:1\npci/block/sdb dev=8:2\npci/block/sdc dev=8:3\n")
        .content("sda ext4 label=$(reboot)\nsdb ext4\nsdc ext4 label=$(reboot)\n")
        .mounts(
            "1 0 8:1 / / rw - ext4 /dev/sda rw\n2 1 8:2 / /srv/$(reboot) rw - ext4 /dev/sdb rw\n"
            "3 1 8:3 / /srv/a\\040b rw - ext4 /dev/sdc rw\n");
    EXPECT_EQ(recorded.volumes(), (Lines{"sda/sda/sda $(reboot) Data /", "sdb/sdb/sdb sdb Data /srv/$(reboot) left out",
                                         "sdc/sdc/sdc $(reboot) Data /srv/a b"}));
    EXPECT_EQ(recorded.lookUp("sdb"), "-");
    EXPECT_EQ(recorded.lookUp("/srv/a b"), "sdc /srv/a b");
    EXPECT_EQ(recorded.lookUp("$(reboot)"), "-");  // two volumes of this name
}

TEST_F(Volumes, TakeNoMountPointFromABoundFile) {
    recorded.files = {"/etc/hosts"};
    recorded.devices("pci/block/sda dev=8:1\n")
        .content("sda ext4\n")
        .mounts(
            "1 0 0:9 / / rw - overlay overlay rw\n2 1 8:1 /c/hosts /etc/hosts rw - ext4 /dev/sda rw\n"
            "3 1 8:1 /c/data /srv/data rw - ext4 /dev/sda rw\n");
    EXPECT_EQ(recorded.lookUp("sda"), "sda /srv/data");
}

TEST_F(Volumes, AnswerForPrebootByDirectoryUnlessColonsAreRefused) {
    recorded.devices("pci/block/sda dev=8:1\npci/block/sdb dev=8:2\n").content("sda ext4\nsdb vfat part=" + bootLoader);
    const std::string root = "1 0 8:1 / / rw - ext4 /dev/sda rw\n";
    recorded.mounts(root + "2 1 8:2 / /efi rw - vfat /dev/sdb rw\n");
    EXPECT_EQ(recorded.lookUp("Preboot"), "sda /boot");
    recorded.mounts(root + "2 1 8:2 / /boot rw - vfat /dev/sdb rw\n");
    EXPECT_EQ(recorded.lookUp("Preboot"), "-");
    recorded.mounts(root + "2 1 8:2 / /boot rw - fuseblk /dev/sdb rw\n");
    EXPECT_EQ(recorded.lookUp("Preboot"), "-");
    recorded.mounts(root);
    for (const auto* folder : {"relative", "/boot;reboot", ""}) {
        recorded.settings.prebootDirectory = folder;
        EXPECT_EQ(recorded.lookUp("Preboot"), "-") << folder;
    }
    recorded.files = {"/gone"};
    recorded.settings.prebootDirectory = "/gone";
    EXPECT_EQ(recorded.lookUp("Preboot"), "-");
}

TEST_F(Volumes, AnswerForPrebootByRoleTheMountedOneFirst) {
    recorded.devices("pci/block/sda dev=8:1\npci/block/sdb dev=8:2\npci/block/sdc dev=8:3\n")
        .content("sda ext4 part=" + bootLoader + "\nsdb ext4 uuid=ABC\nsdc ext4 label=Preboot\n")
        .mounts("1 0 8:3 / / rw - ext4 /dev/sdc rw\n");
    EXPECT_EQ(recorded.lookUp("Preboot"), "sda ");
    recorded.mounts("1 0 8:3 / / rw - ext4 /dev/sdc rw\n2 1 8:2 / /b rw - ext4 /dev/sdb rw\n");
    recorded.settings.roles = {{"abc", "Preboot"}};
    EXPECT_EQ(recorded.lookUp("Preboot"), "sdb /b");
}

TEST_F(Volumes, AreFoundByALinkToTheirNode) {
    recorded.links = {{"/dev/disk/by-label/x", makedev(8, 7)}};
    recorded.devices("pci/block/sda dev=8:7\n").content("sda ext4\n").mounts("");
    EXPECT_EQ(recorded.lookUp("/dev/disk/by-label/x"), "sda ");
    EXPECT_EQ(recorded.lookUp("/dev/disk/by-label/y"), "-");
}

TEST_F(Volumes, NestInTheListingWithoutThoseLeftOut) {
    recorded
        .devices(
            "pci/block/sda\npci/block/sda/sda1\npci/block/sda/sda2\n"
            "pci/block/sdb\npci/block/sdc removable=1\n")
        .content("sda1 ext4 uuid=U1 label=\x1b[2J\nsda2 crypto_LUKS uuid=U2\nsdb xfs\n")
        .mounts("");
    const auto listing = groupListing(findVolumes(recorded.machine()));
    std::string shape;
    for (const auto& container : *findValueAs<PropertyListArray>(*listing.as<PropertyListDictionary>(), "Containers")) {
        shape += "[";
        for (const auto& group :
             *findValueAs<PropertyListArray>(*container.as<PropertyListDictionary>(), "VolumeGroups")) {
            shape += "(";
            for (const auto& volume : *findValueAs<PropertyListArray>(*group.as<PropertyListDictionary>(), "Volumes")) {
                const auto& entry = *volume.as<PropertyListDictionary>();
                for (const auto* key : {"DeviceIdentifier", "DiskUUID", "Role", "VolumeName"})
                    shape += textFromPlatformString(findValue(entry, key)) + ",";
            }
            shape += ")";
        }
        shape += "]";
    }
    EXPECT_EQ(shape, "[(sda1,U1,Other,\\x1b[2J,)(sda2,U2,Other,sda2,)][(sdb,,Other,sdb,)]");
}

}  // namespace
