"""volctl on real loop devices, in a private mount namespace.  TARNWICK_BIN: the folder of the program."""
import fcntl
import hashlib
import os
import plistlib
import pty
import select
import shutil
import signal
import struct
import subprocess
import sys
import termios
import unittest
import uuid

WORK = "/mnt/volctl-test"
IN_NAMESPACE = "--in-namespace"
# What a volume may be mounted as, and the tool that makes one (xfs wants 300 MiB; the images are sparse).
FORMATS = {"ext4": (64, ["mkfs.ext4", "-q", "-U"]), "xfs": (320, ["mkfs.xfs", "-q", "-m"]),
           "btrfs": (128, ["mkfs.btrfs", "-q", "-U"])}
FORMATS = {name: made for name, made in FORMATS.items() if shutil.which(made[1][0]) and (
    any(line.split()[-1] == name for line in open("/proc/filesystems"))
    or os.path.isdir(f"/lib/modules/{os.uname().release}/kernel/fs/{name}"))}
VOLCTL = ""


def call(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, **options).stdout


class VolctlTest(unittest.TestCase):
    def setUp(self):
        os.makedirs("/etc/tarnwick", exist_ok=True)
        self.settings({})

    def settings(self, content):
        with open("/etc/tarnwick/volumes.plist", "wb") as file:
            plistlib.dump(content, file)
            os.fchmod(file.fileno(), 0o644)

    def volctl(self, *arguments, key=None, status=0):
        """Standard output; nothing but volctl itself can be run."""
        options = {"start_new_session": True}
        if key is not None:
            reader, writer = os.pipe()
            os.write(writer, key)
            os.close(writer)
            arguments += ("--key-file", str(reader))
            options["pass_fds"] = [reader]
        done = subprocess.run([VOLCTL, *arguments], capture_output=True, env={"PATH": "/nowhere"}, **options)
        if key is not None:
            os.close(reader)
        self.errors = done.stderr.decode()
        self.assertEqual(done.returncode, status, self.errors)
        return done.stdout

    def info(self, identifier, status=0):
        answer = self.volctl("info", "-plist", identifier, status=status)
        return plistlib.loads(answer) if status == 0 else None

    def listed(self, device):
        found = []
        for container in plistlib.loads(self.volctl("zkfs", "listGroups", "-plist"))["Containers"]:
            for group in container["VolumeGroups"]:
                found += [(container["ContainerReference"], group["GroupReference"], volume)
                          for volume in group["Volumes"] if volume["DeviceIdentifier"] == device]
        return found

    def image(self, name, megabytes):
        path = os.path.join(WORK, name)
        self.addCleanup(os.remove, path)
        with open(path, "wb") as file:
            file.truncate(megabytes << 20)
        return path

    def formatted(self, format, *options):
        megabytes, make = FORMATS[format]
        path, identity = self.image(f"{self.id()}.{format}", megabytes), str(uuid.uuid4())
        call(*make, "uuid=" + identity if format == "xfs" else identity, *options, path)
        return path, identity

    def attach(self, path):
        """The name of a loop device over the image."""
        device = call("losetup", "-f", "--show", path).decode().strip()
        self.addCleanup(subprocess.run, ["losetup", "-d", device])
        return device.removeprefix("/dev/")

    def mount(self, device, folder):
        os.makedirs(folder, exist_ok=True)
        call("mount", device, folder)
        self.addCleanup(subprocess.run, ["umount", folder], capture_output=True)

    def dirty_image(self, format):
        """An image as a power cut leaves it: a deleted file still open, and a journal to replay."""
        path, _ = self.formatted(format)
        folder = os.path.join(WORK, "dirty")
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
            copy = self.image(f"{self.id()}.{format}.copy", 1)
            shutil.copyfile(path, copy)
        call("umount", folder)
        return copy

    @staticmethod
    def digest(path):
        with open(path, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()


class PlainFileSystems(VolctlTest):
    def test_are_listed_with_role_and_identity(self):
        for format in FORMATS:
            with self.subTest(format):
                path, identity = self.formatted(format, "-L", "name of it")
                device = self.attach(path)
                [(container, group, volume)] = self.listed(device)
                self.assertEqual((container, group), (device, device))
                self.assertEqual((volume["DiskUUID"], volume["Role"]), (identity, "Other"))
                self.settings({"Roles": {identity.upper(): "Data"}})
                self.assertEqual(self.listed(device)[0][2]["Role"], "Data")
                information = self.info("/dev/" + device)
                self.assertEqual(information["VolumeName"], "name of it")
                self.assertEqual(information["ZKFSContainerReference"], device)
                self.assertNotIn("MountPoint", information)
                self.mount("/dev/" + device, "/srv/a mount")
                self.assertEqual(self.info("/srv/a mount")["DeviceIdentifier"], device)
                self.assertEqual(self.info(device)["MountPoint"], "/srv/a mount")
                call("umount", "/srv/a mount")
                self.doCleanups()

    def test_are_mounted_and_left_without_a_byte_changed(self):
        for format in FORMATS:
            with self.subTest(format):
                path = self.dirty_image(format)
                before = self.digest(path)
                device = self.attach(path)
                folder = "/run/tarnwick/volumes/" + device
                self.volctl("zkfs", "unlockVolume", device)
                self.assertEqual(self.info(device)["MountPoint"], folder)
                self.assertEqual(len(self.listed(device)), 1)
                options = call("findmnt", "-no", "VFS-OPTIONS", folder).decode().strip().split(",")
                self.assertLessEqual({"ro", "nosuid", "nodev", "noexec"}, set(options))
                self.assertTrue(os.path.exists(folder + "/kept"))
                self.volctl("zkfs", "unlockVolume", device)  # a second time: nothing to do
                self.volctl("zkfs", "lockVolume", device)
                self.assertNotIn("MountPoint", self.info(device))
                self.assertFalse(os.path.exists(folder))
                self.assertNotIn(f"(/dev/{device})", call("losetup", "-a").decode())
                self.assertEqual(self.digest(path), before)
                self.doCleanups()

    def test_mounted_by_others_are_not_touched(self):
        device = self.attach(self.formatted("ext4")[0])
        self.mount("/dev/" + device, WORK + "/theirs")
        self.volctl("zkfs", "unlockVolume", device)
        self.volctl("zkfs", "lockVolume", device)
        self.assertEqual(self.info(device)["MountPoint"], WORK + "/theirs")

    def test_with_hostile_names_stay_names(self):
        device = self.attach(self.formatted("ext4", "-L", "$(reboot)\x1b[2J")[0])
        self.assertEqual(self.info(device)["VolumeName"], "$(reboot)\\x1b[2J")
        self.mount("/dev/" + device, WORK + "/$(reboot)")
        self.assertEqual(self.listed(device), [])
        self.assertIn(device + " is left out", self.errors)
        self.info(device, status=1)
        table = self.volctl("list").decode()
        self.assertIn("left out", table)
        self.assertNotIn("\x1b", table)

    def test_that_fit_two_formats_are_unknown_not_empty(self):
        path, _ = self.formatted("ext4")
        with open(path, "r+b") as file:  # the superblock of a reiserfs, where ext4 keeps something else
            file.seek(65536)
            file.write(struct.pack("<IIII28xH6x", 16384, 100, 17, 18, 4096) + b"ReIsEr2Fs\0")
        device = self.attach(path)
        self.assertNotIn("FileSystemType", self.listed(device)[0][2])
        self.volctl("zkfs", "unlockVolume", device, status=1)

    def test_that_are_damaged_leave_nothing_behind(self):
        path, _ = self.formatted("ext4")
        call("debugfs", "-w", "-R", "set_super_value blocks_count 99999999", path)
        device = self.attach(path)
        self.volctl("zkfs", "unlockVolume", device, status=1)
        self.assertFalse(os.path.exists("/run/tarnwick/volumes/" + device))
        self.assertNotIn(f"(/dev/{device})", call("losetup", "-a").decode())

    def test_without_content_or_name_are_no_volumes(self):
        device = self.attach(self.image(self.id(), 1))
        self.assertEqual(self.listed(device), [])
        for identifier in (device, "/nowhere", "no such name", ""):
            self.info(identifier, status=1)
        self.volctl("info", status=2)

    def test_answer_for_preboot(self):
        self.settings({"PrebootDirectory": "/srv"})
        self.assertEqual(self.info("Preboot")["MountPoint"], "/srv")
        os.symlink("/srv", WORK + "/link")
        self.settings({"PrebootDirectory": WORK + "/link"})
        self.assertEqual(self.info("Preboot")["MountPoint"], "/srv")
        path, identity = self.formatted("ext4")
        device = self.attach(path)
        self.settings({"PrebootDirectory": "/srv", "Roles": {identity: "Preboot"}})
        self.mount("/dev/" + device, WORK + "/preboot")
        self.assertEqual(self.info("Preboot")["MountPoint"], WORK + "/preboot")
        os.chmod("/etc/tarnwick/volumes.plist", 0o666)  # now anybody might have written it
        if os.path.isdir("/boot"):
            self.assertEqual(self.info("Preboot")["MountPoint"], "/boot")


class LockedVolumes(VolctlTest):
    def locked_image(self):
        path = self.image(self.id() + ".luks", 20)
        call("cryptsetup", "luksFormat", "-q", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
             "1000", "--key-file", "-", path, input=b"right")
        return path

    def assert_nothing_open(self, device):
        self.assertFalse(os.path.exists("/dev/mapper/tarnwick-" + device))
        self.assertFalse(os.path.exists("/run/tarnwick/volumes/" + device))

    def test_are_listed_once_and_locked(self):
        device = self.attach(self.locked_image())
        [(_, _, volume)] = self.listed(device)
        self.assertIs(volume["Locked"], True)

    def test_stay_locked_without_the_right_key(self):
        path = self.locked_image()
        before, device = self.digest(path), self.attach(path)
        for key, problem in ((b"wrong", "wrong passphrase"), (b"right\n", "wrong passphrase"), (b"", "end of input"),
                             (b"x" * 10000, "too long")):
            self.volctl("zkfs", "unlockVolume", device, key=key, status=1)
            self.assertIn(problem, self.errors)
        self.volctl("zkfs", "unlockVolume", device, status=1)
        self.assertIn("no terminal", self.errors)
        self.volctl("zkfs", "unlockVolume", device, "--key-file", "99", status=1)
        self.assert_nothing_open(device)
        self.assertEqual(self.digest(path), before)

    def test_with_a_damaged_header_are_not_mended(self):
        for damage in (b"\xff" * 4096, b"\x00" * 0x40000):
            path = self.locked_image()
            with open(path, "r+b") as file:
                file.seek(4096)
                file.write(damage)
            before, device = self.digest(path), self.attach(path)
            self.volctl("zkfs", "unlockVolume", device, key=b"wrong", status=1)
            self.assert_nothing_open(device)
            self.assertEqual(self.digest(path), before)
            self.doCleanups()

    def test_opened_are_mounted_and_closed_again(self):
        device = self.attach(self.locked_image())
        if os.path.exists("/dev/mapper/control"):
            self.skipTest("needs a file system inside; the machine test does this")
        self.volctl("zkfs", "unlockVolume", device, key=b"right", status=1)
        self.assertNotIn("wrong passphrase", self.errors)  # the key fits, only the kernel cannot open it
        self.assert_nothing_open(device)

    def at_terminal(self, device, lines, signal_after=None):
        """unlockVolume on a terminal of its own, each prompt answered: output, exit status, echo at the end."""
        terminal, slave = pty.openpty()
        child = subprocess.Popen([VOLCTL, "zkfs", "unlockVolume", device], stdin=slave, stdout=slave, stderr=slave,
                                 start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        output = b""
        for line in lines:
            already = output.count(b"Passphrase for")
            while output.count(b"Passphrase for") == already:
                self.assertIsNone(child.poll(), output)
                if select.select([terminal], [], [], 1)[0]:
                    output += os.read(terminal, 4096)
            self.assertFalse(termios.tcgetattr(slave)[3] & termios.ECHO)
            os.write(terminal, line)
        if signal_after:
            child.send_signal(signal_after)
        status = child.wait()
        echo = bool(termios.tcgetattr(slave)[3] & termios.ECHO)
        os.set_blocking(terminal, False)
        try:
            output += os.read(terminal, 65536)
        except (BlockingIOError, OSError):
            pass
        os.close(slave)
        os.close(terminal)
        return output, status, echo

    def test_ask_three_times_and_never_show_the_passphrase(self):
        device = self.attach(self.locked_image())
        output, status, echo = self.at_terminal(device, [b"guess-1\n", b"guess-2\n", b"guess-3\n"])
        self.assertEqual((status, echo), (1, True))
        self.assertEqual(output.count(b"Passphrase for"), 3)
        self.assertNotIn(b"guess", output)

    def test_give_up_at_end_of_input_and_on_signals(self):
        device = self.attach(self.locked_image())
        output, status, echo = self.at_terminal(device, [b"\x04"])
        self.assertEqual((status, echo), (1, True))
        self.assertIn(b"end of input", output)
        for keys, kill in ((b"\x03", None), (b"half", signal.SIGTERM)):
            _, status, echo = self.at_terminal(device, [keys], kill)
            self.assertEqual((status, echo), (-(kill or signal.SIGINT), True))
        self.assert_nothing_open(device)


def loop_devices_work():
    with open("/tmp/volctl-probe." + str(os.getpid()), "w+b") as file:
        os.remove(file.name)
        file.truncate(1 << 20)
        done = subprocess.run(["losetup", "-f", "--show", f"/proc/self/fd/{file.fileno()}"], capture_output=True,
                              pass_fds=[file.fileno()])
    return done.returncode == 0 and subprocess.run(["losetup", "-d", done.stdout.strip()]).returncode == 0


def prepare_namespace():
    call("mount", "-t", "tmpfs", "tmpfs", "/mnt")
    call("mount", "-t", "tmpfs", "tmpfs", "/run")
    for folder in (WORK, "/mnt/etc", "/mnt/etc-work"):
        os.makedirs(folder)
    call("mount", "-t", "overlay", "overlay", "-o", "lowerdir=/etc,upperdir=/mnt/etc,workdir=/mnt/etc-work", "/etc")
    call("mount", "-t", "tmpfs", "tmpfs", "/srv")


if __name__ == "__main__":
    if os.geteuid() != 0 or not loop_devices_work():
        print("skipped: needs root and loop devices")
        sys.exit(77)
    if IN_NAMESPACE not in sys.argv:
        os.execvp("unshare", ["unshare", "-m", "--propagation", "private", sys.executable, *sys.argv, IN_NAMESPACE])
    sys.argv.remove(IN_NAMESPACE)
    VOLCTL = os.path.join(os.path.abspath(os.environ["TARNWICK_BIN"]), "volctl")
    prepare_namespace()
    print("file systems that this machine can make and mount:", *FORMATS)
    unittest.main()
