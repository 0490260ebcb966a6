# volctl on real loop devices.
import os
import plistlib
import re
import struct

from world import Disks, call, on_terminal, overwrite, property_list, read, shell, write

SETTINGS = "/etc/tarnwick/volumes.plist"


class Volctl(Disks):
    def volctl(self, *words, **options):
        self.tool("volctl", *words, **options)

    def unlock(self, *words, **options):
        self.volctl("zkfs", "unlockVolume", *words, **options)

    # An image as a power cut leaves it: a deleted file still open, and a journal to replay.
    def dirty_image(self, format):
        path, identity = self.formatted("-L", "name of it", format=format)
        call("mount", "-o", "loop,X-mount.mkdir", path, "/media/dirty")
        shell("/media/dirty", f"""exec 3>orphan; head -c 100000 /dev/zero >&3; touch kept; rm orphan
            fsfreeze -f .; fsfreeze -u .   # moves all so far from the journal to its place
            echo 'only in the journal' >kept; sync kept
            cp --sparse=always {path} {path}.copy""")
        call("umount", "/media/dirty")  # the kernel mounts no two file systems of one identity
        return path + ".copy", identity

    # The device is neither mounted nor unlocked, and no byte of its image differs from `before`.
    def assert_unused(self, device, path, before):
        for trace in "/dev/mapper/tarnwick-", "/run/tarnwick/volumes/":
            self.assertFalse(os.path.exists(trace + device))
        self.assertNotIn(f"(/dev/{device})", call("losetup", "-a"))
        self.assertEqual(call("sha256sum", path), before)

    def mounted_and_left_without_a_byte_changed(self, format):
        if f"\t{format}\n" not in read("/proc/filesystems"):
            self.skipTest(f"no {format} in this kernel")
        path, identity = self.dirty_image(format)
        before, device = call("sha256sum", path), self.attach(path)
        self.volctl("info", "-plist", device)
        self.set_role(identity.upper(), "Data")
        for _ in range(2):  # the second time there is nothing to do
            self.unlock(device)
        self.volctl("info", "-plist", "/dev/" + device)
        self.note("mounted", call("findmnt", "-no", "VFS-OPTIONS", "/run/tarnwick/volumes/" + device))
        self.note("in it", call("ls", "-R", "/run/tarnwick/volumes/"))
        listed = plistlib.loads(call("/media/programs/volctl", "zkfs", "listGroups", "-plist").encode())
        self.note("listed", "\n".join(str(each) for each in listed["Containers"] if device in str(each)))
        self.volctl("zkfs", "lockVolume", device)
        self.volctl("info", "-plist", device)
        self.assert_unused(device, path, before)

    def test_ext4(self):
        self.mounted_and_left_without_a_byte_changed("ext4")

    def test_xfs(self):
        self.mounted_and_left_without_a_byte_changed("xfs")

    def test_btrfs(self):
        self.mounted_and_left_without_a_byte_changed("btrfs")

    def test_hostile_names_and_mounts_of_others(self):
        for folder in "/media/a mount", "/media/$(reboot)":
            device = self.mount(self.formatted("-L", "$(reboot)\x1b[2J")[0], folder)
            for words in ("zkfs", "unlockVolume", device), ("zkfs", "lockVolume", device), ("info", "-plist", folder):
                self.volctl(*words)
            self.note("listed", *re.findall(f"(?m)^{device} .*", call("/media/programs/volctl", "list")))
            self.note("json", *re.findall(f'.*"device": "{device}".*', call("/media/programs/volctl", "list", "--json")))

    def test_file_system_in_doubt_is_left_alone(self):
        path = self.formatted()[0]
        # The superblock of a reiserfs, where ext4 keeps something else.
        overwrite(path, 65536, struct.pack("<IIII28xH6x", 16384, 100, 17, 18, 4096) + b"ReIsEr2Fs\0")
        before, device = call("sha256sum", path), self.attach(path)
        self.unlock(device)
        self.assert_unused(device, path, before)

    # Only `list` goes on without them, with a warning.
    def test_settings_that_cannot_be_used(self):
        good = property_list({"PrebootDirectory": "/boot"})
        for name, make in {
                "broken": lambda: write(SETTINGS, good[:-9]),
                "that all can write": lambda: os.chmod(write(SETTINGS, good), 0o646),
                "that a group can write": lambda: os.chmod(write(SETTINGS, good), 0o664),
                "of another owner": lambda: os.chown(write(SETTINGS, good), 65534, 0),
                "that is a link": lambda: os.symlink(write("/media/good", good), SETTINGS),
                "that is a FIFO": lambda: os.mkfifo(SETTINGS)}.items():
            make()
            self.note("file", name)
            with open("/media/table", "wb") as table:  # of the table, which is the machine's, only one line is checked
                self.volctl("list", stdout=table)
            self.assertRegex(read("/media/table").splitlines()[1], " Data +[^/]* / +mounted$")
            for words in "info -plist /", "zkfs listGroups -plist", "zkfs unlockVolume /":
                self.volctl(*words.split())
            os.remove(SETTINGS)

    # Stay locked without the right key, and no damaged header is repaired.
    def test_locked_volumes(self):
        path = self.locked(b"right")
        before, device = call("sha256sum", path), self.attach(path)
        for key in b"wrong", b"right\n", b"", b"x" * 10000:
            self.unlock(device, "--key-fd", "0", typed=key)
        self.unlock(device)  # there is no terminal
        for lines in [b"guess-1\n", b"guess-2\n", b"guess-3\n"], [b"\x04"], [b"\x03"]:
            words = ["/media/programs/volctl", "zkfs", "unlockVolume", device]
            self.note("shown", "{}\n{} {}".format(*on_terminal(words, b"Passphrase for", *lines)))
        self.assert_unused(device, path, before)
        overwrite("/dev/" + device, 4096, b"\xff" * 4096)
        before = call("sha256sum", path)
        self.unlock(device, "--key-fd", "0", typed=b"wrong")
        self.assert_unused(device, path, before)
