"""volctl on real loop devices, and a capture with nothing standing in."""
import os
import plistlib
import shutil
import signal
import struct
import subprocess
import uuid

import world
from world import FOLDER, Scenario, call, on_terminal, property_list, write

VOLCTL = "/media/programs/volctl"
# What a volume may be mounted as, its size in MiB (xfs wants 300; the images are sparse) and the tool that makes one.
FORMATS = {"ext4": (64, "mkfs.ext4 -q -U {}"), "xfs": (320, "mkfs.xfs -q -m uuid={}"),
           "btrfs": (128, "mkfs.btrfs -q -U {}")}


def can_use(format):
    known = {line.split()[-1] for line in world.read("/proc/filesystems").splitlines()}
    module = f"/lib/modules/{os.uname().release}/kernel/fs/{format}"
    return shutil.which(f"mkfs.{format}") and (format in known or os.path.isdir(module))


class VolctlTest(Scenario):
    def setUp(self):
        super().setUp()
        self.world.lay("/run", "mode=755")

    def settings(self, **content):
        write("/etc/tarnwick/volumes.plist", property_list(content))

    def volctl(self, *words, key=None, status=0):
        """Standard output. No terminal, and nothing but volctl itself can be run."""
        words = words if key is None else (*words, "--key-file", "0")
        done = subprocess.run([VOLCTL, *words], input=key, capture_output=True, env={"PATH": "/nowhere"},
                              start_new_session=True, check=False)
        self.errors = done.stderr.decode()
        self.assertEqual(done.returncode, status, self.errors)
        return done.stdout

    def unlock(self, device, **more):
        self.volctl("zkfs", "unlockVolume", device, **more)

    def info(self, identifier):
        return plistlib.loads(self.volctl("info", "-plist", identifier))

    def listed(self, device):
        containers = plistlib.loads(self.volctl("zkfs", "listGroups", "-plist"))["Containers"]
        return [(container["ContainerReference"], group["GroupReference"], volume) for container in containers
                for group in container["VolumeGroups"] for volume in group["Volumes"]
                if volume["DeviceIdentifier"] == device]

    def image(self, megabytes):
        path = f"/media/{uuid.uuid4()}"
        call("truncate", "-s", f"{megabytes}M", path)
        return path

    def formatted(self, format="ext4", *options):
        (megabytes, make), identity = FORMATS[format], str(uuid.uuid4())
        path = self.image(megabytes)
        call(*make.format(identity).split(), *options, path)
        return path, identity

    def attach(self, path):
        """The name of a loop device over the image."""
        device = call("losetup", "-f", "--show", path).strip()
        self.addCleanup(call, "losetup", "-d", device)
        return device.removeprefix("/dev/")

    def mount(self, device, folder):
        os.makedirs(folder)
        call("mount", device, folder)

    def dirty_image(self, format):
        """An image as a power cut leaves it: a deleted file still open, and a journal to replay."""
        path, identity = self.formatted(format, "-L", "name of it")
        folder, copy = f"/media/dirty {format}", path + ".copy"
        self.mount(path, folder)
        with open(folder + "/orphan", "w+") as orphan, open(folder + "/kept", "w") as kept:
            orphan.write("x" * 100000)
            orphan.flush()
            os.remove(folder + "/orphan")
            call("fsfreeze", "-f", folder)  # moves all so far from the journal to its place
            call("fsfreeze", "-u", folder)
            kept.write("only in the journal")
            kept.flush()
            os.fsync(kept.fileno())
            call("cp", "--sparse=always", path, copy)
        call("umount", folder)  # the kernel mounts no two file systems of one identity
        return copy, identity

    def assert_nothing_open(self, device):
        for trace in ("/dev/mapper/tarnwick-", "/run/tarnwick/volumes/"):
            self.assertFalse(os.path.exists(trace + device))
        self.assertNotIn(f"(/dev/{device})", call("losetup", "-a"))


class PlainFileSystems(VolctlTest):
    def test_are_listed_mounted_and_left_without_a_byte_changed(self):
        for format in filter(can_use, FORMATS):
            with self.subTest(format):
                path, identity = self.dirty_image(format)
                before, device = call("sha256sum", path), self.attach(path)
                [(container, group, volume)] = self.listed(device)
                self.assertEqual((container, group, volume["DiskUUID"], volume["Role"]),
                                 (device, device, identity, "Other"))
                self.settings(Roles={identity.upper(): "Data"})
                self.assertEqual(self.listed(device)[0][2]["Role"], "Data")
                folder = "/run/tarnwick/volumes/" + device
                for _ in range(2):  # the second time there is nothing to do
                    self.unlock(device)
                self.assertEqual(len(self.listed(device)), 1)
                information = self.info("/dev/" + device)
                self.assertEqual([information[key] for key in ("VolumeName", "ZKFSContainerReference", "MountPoint")],
                                 ["name of it", device, folder])
                options = call("findmnt", "-no", "VFS-OPTIONS", folder).strip().split(",")
                self.assertLessEqual({"ro", "nosuid", "nodev", "noexec"}, set(options))
                self.assertTrue(os.path.exists(folder + "/kept"))
                self.volctl("zkfs", "lockVolume", device)
                self.assertNotIn("MountPoint", self.info(device))
                self.assert_nothing_open(device)
                self.assertEqual(call("sha256sum", path), before)

    def test_mounted_by_others_are_not_touched(self):
        device = self.attach(self.formatted()[0])
        self.mount("/dev/" + device, "/media/a mount")
        self.unlock(device)
        self.volctl("zkfs", "lockVolume", device)
        self.assertEqual(self.info("/media/a mount")["DeviceIdentifier"], device)

    def test_with_hostile_names_stay_names(self):
        device = self.attach(self.formatted("ext4", "-L", "$(reboot)\x1b[2J")[0])
        self.assertEqual(self.info(device)["VolumeName"], "$(reboot)\\x1b[2J")
        self.mount("/dev/" + device, "/media/$(reboot)")
        self.assertEqual(self.listed(device), [])
        self.assertIn(device + " is left out", self.errors)
        self.volctl("info", "-plist", device, status=1)
        table = self.volctl("list").decode()
        self.assertIn("left out", table)
        self.assertNotIn("\x1b", table)

    def test_that_are_in_doubt_or_damaged_are_not_mounted(self):
        path, _ = self.formatted()
        with open(path, "r+b") as file:  # the superblock of a reiserfs, where ext4 keeps something else
            file.seek(65536)
            file.write(struct.pack("<IIII28xH6x", 16384, 100, 17, 18, 4096) + b"ReIsEr2Fs\0")
        doubtful = self.attach(path)
        self.assertNotIn("FileSystemType", self.listed(doubtful)[0][2])
        path, _ = self.formatted()
        call("debugfs", "-w", "-R", "set_super_value blocks_count 99999999", path)
        for device in doubtful, self.attach(path):
            self.unlock(device, status=1)
            self.assert_nothing_open(device)
        blank = self.attach(self.image(1))
        self.assertEqual(self.listed(blank), [])
        for identifier in (blank, "/nowhere", "no such name", ""):
            self.volctl("info", "-plist", identifier, status=1)
        self.volctl("info", status=2)

    def test_answer_for_preboot(self):
        os.symlink("/media/cwd", "/media/link")
        self.settings(PrebootDirectory="/media/link")
        self.assertEqual(self.info("Preboot")["MountPoint"], "/media/cwd")
        os.chmod("/etc/tarnwick/volumes.plist", 0o666)  # now anybody might have written it
        if os.path.isdir("/boot"):
            self.assertEqual(self.info("Preboot")["MountPoint"], "/boot")


class LockedVolumes(VolctlTest):
    def setUp(self):
        super().setUp()
        self.path = self.image(20)
        call("cryptsetup", "luksFormat", "-q", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
             "1000", "--key-file", "-", self.path, input=b"right")

    def test_stay_locked_without_the_right_key(self):
        before, device = call("sha256sum", self.path), self.attach(self.path)
        [(_, _, volume)] = self.listed(device)
        self.assertIs(volume["Locked"], True)
        for key, problem in ((b"wrong", "wrong passphrase"), (b"right\n", "wrong passphrase"), (b"", "end of input"),
                             (b"x" * 10000, "too long"), (None, "no terminal")):
            self.unlock(device, key=key, status=1)
            self.assertIn(problem, self.errors)
        self.volctl("zkfs", "unlockVolume", device, "--key-file", "99", status=1)
        if not os.path.exists("/dev/mapper/control"):  # else it is opened; what is in it, the machine test tells
            self.unlock(device, key=b"right", status=1)
            self.assertNotIn("wrong passphrase", self.errors)  # the key fits, only the kernel cannot open it
        self.assert_nothing_open(device)
        self.assertEqual(call("sha256sum", self.path), before)

    def test_with_a_damaged_header_are_not_mended(self):
        device = self.attach(self.path)
        for damage in (b"\xff" * 4096, b"\x00" * 0x40000):
            with open("/dev/" + device, "r+b") as file:
                file.seek(4096)
                file.write(damage)
            before = call("sha256sum", self.path)
            self.unlock(device, key=b"wrong", status=1)
            self.assert_nothing_open(device)
            self.assertEqual(call("sha256sum", self.path), before)

    def test_ask_three_times_without_echo_and_give_up_on_signals(self):
        device = self.attach(self.path)
        for lines, kill, status, prompts, says in (
                ([b"guess-1\n", b"guess-2\n", b"guess-3\n"], None, 1, 3, b"wrong passphrase"),
                ([b"\x04"], None, 1, 1, b"end of input"),
                ([b"\x03"], None, -signal.SIGINT, 1, b""),
                ([b"half"], signal.SIGTERM, -signal.SIGTERM, 1, b"")):
            with self.subTest(lines):
                words = [VOLCTL, "zkfs", "unlockVolume", device]
                shown, *end = on_terminal(words, b"Passphrase for", *lines, kill=kill)
                self.assertEqual(end, [status, True])
                self.assertEqual((shown.count(b"Passphrase for"), b"guess" in shown), (prompts, False))
                self.assertIn(says, shown)
        self.assert_nothing_open(device)


class Capture(VolctlTest):
    def test_with_nothing_standing_in_and_consent_given_on_a_terminal(self):
        for command in ("volctl", "nvram"):
            os.remove(f"/media/bin/{command}")
            os.symlink(f"/media/programs/{command}", f"/media/bin/{command}")
        roles = {}
        for folder, role in (("/media/preboot", "Preboot"), ("/media/data", "Data")):
            path, identity = self.formatted()
            os.makedirs(folder, exist_ok=True)
            call("mount", path, folder)
            roles[identity] = role
        self.settings(Roles=roles)
        write(f"/media/data/{world.CONSENT}", property_list({}))
        log = write("/media/data/logs/a.log", "line\n")
        os.makedirs("/media/data/logs/empty")
        words = "/media/programs/tarnwick", "--capturespec", self.world.specification(("/logs", ".*"))
        out, *end = on_terminal(["/usr/bin/env", "PATH=" + world.PATH, *words], b"(yes/no)", b"yes\n", secret=False)
        result = world.Result(end[0], out.replace(b"\r\n", b"\n"), b"")
        self.assertEqual(end, [0, True], result.console)
        device = os.path.basename(call("findmnt", "-n", "-o", "SOURCE", "/media/data").strip())
        self.assertRegex(result.console, rf"\nNow processing volume '.*' \((/dev/)?{device} -> /media/data\)\n")
        firmware = os.path.isdir("/sys/firmware/efi/efivars") and os.listdir("/sys/firmware/efi/efivars")
        self.assertEqual("WARNING: nvram command returned an error" in result.console, not firmware)
        self.assertEqual(self.world.entries(result.archive),
                         [log, *[f"{FOLDER}/nvram.txt"] * bool(firmware), f"{FOLDER}/tarnwick-STAMP.log"])
        self.assertEqual(self.world.content(result.archive, log), "line\n")
        self.assertIn("contains 1 capture:", self.world.run("--summarize").console)


if __name__ == "__main__":
    world.main()
