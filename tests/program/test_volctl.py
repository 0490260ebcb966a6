"""volctl on real loop devices."""
import os
import plistlib
import re
import signal
import struct
import subprocess
import uuid

import world
from world import Scenario, call, on_terminal, property_list, write

SETTINGS = "/etc/tarnwick/volumes.plist"
# What a volume may be mounted as, its size in MiB (xfs wants 300; the images are sparse) and the tool that makes one.
FORMATS = {"ext4": (64, "mkfs.ext4 -q -U {}"), "xfs": (320, "mkfs.xfs -q -m uuid={}"),
           "btrfs": (128, "mkfs.btrfs -q -U {}")}


class Volctl(Scenario):
    def setUp(self):
        super().setUp()
        self.lay("/run", "mode=755")

    def settings(self, **content):
        write(SETTINGS, property_list(content))

    def normal(self, text):
        return [re.sub(r"loop\d+", "LOOP", re.sub(" +", " ", line)) for line in super().normal(text)]

    def volctl(self, *words, **options):
        return self.tool("volctl", *words, **options).stdout

    def unlock(self, *words, **options):
        self.volctl("zkfs", "unlockVolume", *words, **options)

    def image(self, megabytes):
        os.truncate(path := write(f"/media/{uuid.uuid4()}"), megabytes << 20)
        return path

    def formatted(self, format="ext4", *options):
        (megabytes, make), identity = FORMATS[format], str(uuid.uuid4())
        call(*make.format(identity).split(), *options, path := self.image(megabytes))
        self.known[identity] = "<identity>"
        return path, identity

    def attach(self, path):
        """The name of a loop device over the image."""
        device = call("losetup", "-f", "--show", path).strip()
        self.addCleanup(call, "losetup", "-d", device)
        return os.path.basename(device)

    def dirty_image(self, format):
        """An image as a power cut leaves it: a deleted file still open, and a journal to replay."""
        path, identity = self.formatted(format, "-L", "name of it")
        os.mkdir("/media/dirty")
        call("mount", path, "/media/dirty")
        write("/media/dirty/orphan", "x" * 100000)
        with open("/media/dirty/orphan", "rb"):
            write("/media/dirty/kept")
            os.remove("/media/dirty/orphan")
            for way in "-f", "-u":  # moves all so far from the journal to its place
                call("fsfreeze", way, "/media/dirty")
            write("/media/dirty/kept", "only in the journal")
            call("sync", "/media/dirty/kept")
            call("cp", "--sparse=always", path, path + ".copy")
        call("umount", "/media/dirty")  # the kernel mounts no two file systems of one identity
        return path + ".copy", identity

    def assert_nothing_open(self, device):
        for trace in ("/dev/mapper/tarnwick-", "/run/tarnwick/volumes/"):
            self.assertFalse(os.path.exists(trace + device))
        self.assertNotIn(f"(/dev/{device})", call("losetup", "-a"))

    def mounted_and_left_without_a_byte_changed(self, format):
        if f"\t{format}\n" not in world.read("/proc/filesystems"):
            self.skipTest(f"no {format} in this kernel")
        path, identity = self.dirty_image(format)
        before, device = call("sha256sum", path), self.attach(path)
        self.volctl("info", "-plist", device)
        self.settings(Roles={identity.upper(): "Data"})
        for _ in range(2):  # the second time there is nothing to do
            self.unlock(device)
        self.volctl("info", "-plist", "/dev/" + device)
        self.note("mounted", call("findmnt", "-no", "VFS-OPTIONS", "/run/tarnwick/volumes/" + device))
        self.note("in it", call("ls", "-R", "/run/tarnwick/volumes/"))
        listed = plistlib.loads(call("/media/programs/volctl", "zkfs", "listGroups", "-plist").encode())
        self.note("listed", "".join(f"{container}\n" for container in listed["Containers"] if device in str(container)))
        self.volctl("zkfs", "lockVolume", device)
        self.volctl("info", "-plist", device)
        self.assert_nothing_open(device)
        self.assertEqual(call("sha256sum", path), before)

    def test_ext4(self):
        self.mounted_and_left_without_a_byte_changed("ext4")

    def test_xfs(self):
        self.mounted_and_left_without_a_byte_changed("xfs")

    def test_btrfs(self):
        self.mounted_and_left_without_a_byte_changed("btrfs")

    def test_hostile_names_and_mounts_of_others(self):
        device = self.attach(self.formatted("ext4", "-L", "$(reboot)\x1b[2J")[0])
        for folder in "/media/a mount", "/media/$(reboot)":
            os.mkdir(folder)
            call("mount", "/dev/" + device, folder)
            for words in ("zkfs", "unlockVolume", device), ("zkfs", "lockVolume", device), ("info", "-plist", folder):
                self.volctl(*words)
            table = call("/media/programs/volctl", "list")
            self.note("listed", "".join(line + "\n" for line in table.splitlines() if line.startswith(device + " ")))
            call("umount", folder)

    def test_in_doubt_or_damaged(self):
        path, _ = self.formatted()
        with open(path, "r+b") as file:  # the superblock of a reiserfs, where ext4 keeps something else
            file.seek(65536)
            file.write(struct.pack("<IIII28xH6x", 16384, 100, 17, 18, 4096) + b"ReIsEr2Fs\0")
        doubtful = self.attach(path)
        path, _ = self.formatted()
        call("debugfs", "-w", "-R", "set_super_value blocks_count 99999999", path)
        for device in doubtful, self.attach(path):
            self.unlock(device)
            self.assert_nothing_open(device)
        for identifier in self.attach(self.image(1)), "/nowhere", "no such name", "":
            self.volctl("info", "-plist", identifier)

    def test_preboot(self):
        os.symlink("/media/cwd", "/media/link")
        self.settings(PrebootDirectory="/media/link")
        self.assertIn(b">/media/cwd<", self.volctl("info", "-plist", "Preboot"))
        self.record = ""  # the rest is this machine's own

    def test_settings_that_cannot_be_used(self):
        """Only `list` goes on without them, with a warning."""
        good = property_list({"PrebootDirectory": "/media/cwd"})
        self.listed()  # a missing file is no problem
        unknown = property_list({"Roles": {"SERVICE": "Prebot", "sda3": "Data"}})
        for name, text in (("broken", good[:-9]), ("with an array as its root", property_list([])), ("empty", ""),
                           ("with a number for a folder", property_list({"PrebootDirectory": 1})),
                           ("with an unknown role", unknown)):
            write(SETTINGS, text)
            self.refused(name)
        write(SETTINGS, good)
        for mode in 0o666, 0o664:
            os.chmod(SETTINGS, mode)
            self.refused(f"of mode {mode:o}")
        os.chmod(SETTINGS, 0o600)
        self.listed(user=65534, group=65534, extra_groups=[])
        os.chown(SETTINGS, 65534, 0)
        self.refused("of another owner")
        for target in write("/media/good", good), "/nowhere":
            os.remove(SETTINGS)
            os.symlink(target, SETTINGS)
            self.refused("that is a link")
        os.remove(SETTINGS)
        os.mkdir(SETTINGS)
        self.refused("that is a folder")
        os.rmdir(SETTINGS)
        write(SETTINGS, good)
        self.listed(user=65534, group=65534, extra_groups=[])

    def listed(self, **options):
        """Records the messages of `volctl list`. The table is that of the machine, so only its first line is checked."""
        with open("/media/table", "wb") as table:
            self.volctl("list", stdout=table, **options)
        self.assertRegex(world.read("/media/table").splitlines()[1], " Data +[^/]* / +mounted$")

    def refused(self, name):
        """Records the messages of `list` and `info`. The other commands must fail as `info` does."""
        self.note("file", name)
        self.listed()
        answer = self.tool("volctl", "info", "/")
        for words in "info -plist /", "zkfs listGroups", "zkfs listGroups -plist", "zkfs unlockVolume /", \
                "zkfs lockVolume /":
            done = subprocess.run(["/media/programs/volctl", *words.split()], capture_output=True, check=False)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (1, b"", answer.stderr), words)

    def test_locked_volumes(self):
        """Stay locked without the right key, and have no damaged header mended."""
        path = self.image(20)
        call("cryptsetup", "luksFormat", "-q", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
             "1000", "--key-file", "-", path, input=b"right")
        before, device = call("sha256sum", path), self.attach(path)
        for key in b"wrong", b"right\n", b"", b"x" * 10000:
            self.unlock(device, "--key-fd", "0", typed=key)
        self.unlock(device, "--key-fd", "99")
        self.unlock(device)  # there is no terminal
        for lines, kill in ([b"guess-1\n", b"guess-2\n", b"guess-3\n"], None), ([b"\x04"], None), ([b"\x03"], None), \
                ([b"half"], signal.SIGTERM):
            words = ["/media/programs/volctl", "zkfs", "unlockVolume", device]
            self.note("shown", "{}\n{} {}".format(*on_terminal(words, b"Passphrase for", *lines, kill=kill)))
        self.assert_nothing_open(device)
        self.assertEqual(call("sha256sum", path), before)
        for damage in b"\xff" * 4096, b"\x00" * 0x40000:
            with open("/dev/" + device, "r+b") as file:
                file.seek(4096)
                file.write(damage)
            before = call("sha256sum", path)
            self.unlock(device, "--key-fd", "0", typed=b"wrong")
            self.assert_nothing_open(device)
            self.assertEqual(call("sha256sum", path), before)
