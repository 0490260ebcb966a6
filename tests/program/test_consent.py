"""tarnwick-consent on real file systems: what it shows, what it changes, and what it leaves alone."""
import contextlib
import glob
import os
import plistlib
import re
import resource
import shutil
import signal
import subprocess
import time
import uuid

import world
from world import CONSENT, Scenario, call, content, property_list, read, volume_info, write

FOLDER, NAME = os.path.split(CONSENT)
OTHER_KEYS = {"AutoSubmitVersion": 4, "Name": "D\u00e4ta <&>", "Bytes": b"\0\xff", "List": [True, {"a": 1.5}]}


def fingerprint(folder):
    return call("find", folder, "-type", "d", "-printf", "%P/ %m %u\\n", "-o", "-printf", "%P %y %m %u %s %T@ %l\\n")


class Consent(Scenario):
    def setUp(self):
        super().setUp()
        self.lay("/run", "mode=755")
        self.roles = {}

    def normal(self, text):
        return [re.sub(r"loop\d+", "LOOP", re.sub(" +", " ", line)) for line in super().normal(text)]

    def consent(self, *words, **options):
        return self.tool("tarnwick-consent", *words, **options)

    def formatted(self, *options):
        """An image with ext4 on it that volumes.plist calls a data volume."""
        os.truncate(path := write(f"/media/{uuid.uuid4()}"), 16 << 20)
        identity = str(uuid.uuid4())
        call("mkfs.ext4", "-q", "-U", identity, *options, path)
        self.set_role(identity, "Data")
        return path

    def set_role(self, identity, role):
        self.roles[identity] = role
        write("/etc/tarnwick/volumes.plist", property_list({"Roles": self.roles}))

    def data(self, name="data", *options, record=None):
        """The mount point of a data volume, with `record` on it if that is given."""
        os.makedirs(folder := f"/media/{name}")
        call("mount", "-o", "loop", self.formatted(*options), folder)
        self.addCleanup(call, "umount", "--lazy", folder)
        if record is not None:
            write(f"{folder}/{CONSENT}", record if isinstance(record, bytes) else plistlib.dumps(record))
        return folder

    def refuses(self, *words, folder, **options):
        """Changes nothing below the folder."""
        before = fingerprint(folder)
        done = self.consent(*words, **options)
        self.assertEqual((done.returncode, fingerprint(folder)), (1, before))

    def test_changes_and_what_the_capture_makes_of_them(self):
        folder = self.data()
        self.specification()
        self.volumes = [{"DeviceIdentifier": "disk1", "DiskUUID": "UUID-1", "Role": "Data"}]
        self.answer("volctl info -plist disk1", volume_info("data", "disk1", folder))
        self.list_volumes()
        self.consent("show", folder)
        os.umask(0o077)
        self.addCleanup(os.umask, 0o022)
        for command in "grant", "deny", "ask":
            self.consent(command, folder)
            self.capture("--noninteractive")
        self.note("on the volume", call("find", folder + "/Library", "-printf", "%M %u:%g %P\\n"))
        self.consent("show", "--json", folder)

    def test_other_keys_are_kept_and_the_seed_key_decides(self):
        folder = self.data()
        device = os.path.basename(call("findmnt", "-no", "SOURCE", folder).strip())
        for form in plistlib.FMT_XML, plistlib.FMT_BINARY:
            for seed in None, True, False, "no boolean":
                keys = dict(OTHER_KEYS) if seed is None else {**OTHER_KEYS, "SeedAutoSubmit": seed}
                for command, choice in ("grant", {"AutoSubmit": True}), ("deny", {"AutoSubmit": False}), ("ask", {}):
                    write(f"{folder}/{CONSENT}", plistlib.dumps({**keys, "AutoSubmit": "text"}, fmt=form))
                    if form == plistlib.FMT_XML:
                        self.consent(command, device)
                    else:
                        subprocess.run(["/media/programs/tarnwick-consent", command, device], capture_output=True)
                    self.assertEqual(plistlib.loads(content(f"{folder}/{CONSENT}")), {**keys, **choice})
        self.consent("show", "--json", device)
        self.assertEqual(os.listdir(f"{folder}/{FOLDER}"), [NAME])

    def test_volumes_without_a_record_that_can_be_changed(self):
        self.data("denied", "-L", "\x1b[2J", record=world.NO)
        other = self.data("other")
        uuid_of_other = list(self.roles)[-1]
        self.set_role(uuid_of_other, "Other")
        unmounted = self.attach(self.formatted())
        locked = self.attach(self.locked())
        hostile = self.data("$(reboot)")
        for identifier in other, unmounted, locked, hostile, "no\x1bsuch", "", "Preboot/":
            self.consent("show", identifier)
            self.consent("show", "--json", identifier)
            self.refuses("grant", "/media/denied", identifier, folder="/media/denied")
        os.chmod("/etc/tarnwick/volumes.plist", 0o666)  # anybody may have written it
        for words in ["show"], ["grant", "/media/denied"]:
            self.refuses(*words, folder="/media/denied")
        os.chmod("/etc/tarnwick/volumes.plist", 0o644)
        call("mount", "-o", "remount,ro", "/media/denied")
        for command in "grant", "ask":
            self.refuses(command, "\x1b[2J", folder="/media/denied")
            self.refuses(command, r"\x1b[2J", folder="/media/denied", user=65534)
        self.consent("show", "/media/denied", user=65534)
        self.consent("grant", "/media/denied", "/media/denied", "--json")
        for words in ([], ["grow"], ["show", "--all"], ["grant", "--json"]):
            self.assertEqual(self.consent(*words, "/media/denied").returncode, 2)

    def attach(self, path):
        device = call("losetup", "-f", "--show", path).strip()
        self.addCleanup(call, "losetup", "-d", device)
        return os.path.basename(device)

    def locked(self):
        os.truncate(path := write("/media/locked"), 20 << 20)
        call("cryptsetup", "luksFormat", "-q", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
             "1000", "--key-file", "-", path, input=b"key")
        self.set_role(call("cryptsetup", "luksUUID", path).strip(), "Data")
        return path

    def test_nothing_is_followed_and_nothing_outside_is_changed(self):
        """In the place of the record, and of each folder above it: a link, a FIFO, a file, a mount."""
        os.makedirs("/media/outside/real")
        write(f"/media/outside/real/{NAME}", property_list(world.NO))
        before = fingerprint("/media/outside")
        folder = self.data()
        parts = CONSENT.split("/")
        for depth in range(1, len(parts) + 1):
            planted = os.path.join(folder, *parts[:depth])
            link = "/media/outside/real" + f"/{NAME}" * (depth == len(parts))
            for plant in (lambda: os.symlink(link, planted), lambda: os.symlink("../" * depth + "nowhere", planted),
                          lambda: os.mkfifo(planted), lambda: os.mknod(planted, 0o20644, os.makedev(1, 5)),
                          lambda: write(planted, "a file"), lambda: os.mkdir(planted)):
                os.makedirs(os.path.dirname(planted), exist_ok=True)
                plant()
                if os.path.isdir(planted) and not os.path.islink(planted):
                    if depth < len(parts):
                        call("mount", "--bind", "/media/outside/real", planted)
                    else:
                        os.rename(planted, planted + "-")
                        os.mkdir(planted)
                        os.rmdir(planted + "-")
                self.refuses("grant", folder, folder=folder)
                if os.path.ismount(planted):
                    call("umount", planted)
                call("find", folder, "-mindepth", "1", "-delete")
        self.assertEqual(fingerprint("/media/outside"), before)

    def test_records_that_cannot_be_read_are_left_alone(self):
        folder = self.data()
        for record in b"", b"<plist>", b"bplist00", b"{}", plistlib.dumps([True]), plistlib.dumps(world.YES) + b"\0":
            write(f"{folder}/{CONSENT}", record)
            self.refuses("deny", folder, folder=folder)
            self.assertEqual(content(f"{folder}/{CONSENT}"), record)
        os.truncate(f"{folder}/{CONSENT}", (16 << 20) + 1)
        self.refuses("deny", folder, folder=folder)
        # Each "&" takes one byte now and five in the XML form.
        write(f"{folder}/{CONSENT}", plistlib.dumps({"Text": "&" * (4 << 20)}, fmt=plistlib.FMT_BINARY))
        self.refuses("deny", folder, folder=folder)
        self.consent("show", folder)

    def waits_to_write(self, process):
        """Blocked by the kernel, with signals held back."""
        status = read(f"/proc/{process.pid}/status")
        held = int(re.search(r"SigBlk:\s*(\w+)", status)[1], 16)
        return "State:\tD" in status and held >> (signal.SIGTERM - 1) & 1

    def test_failed_or_killed_it_leaves_the_old_record(self):
        folder = self.data()
        long = {"Text": "x" * 5000, "AutoSubmit": False}

        def small_files():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))

        self.refuses("grant", folder, folder=folder, preexec_fn=small_files)  # takes its new folders away again
        write(f"{folder}/{CONSENT}", plistlib.dumps(long))
        self.refuses("grant", folder, folder=folder, preexec_fn=small_files)
        call("fsfreeze", "-f", folder)
        with contextlib.ExitStack() as thaw:
            thaw.callback(call, "fsfreeze", "-u", folder)
            for number in signal.SIGTERM, signal.SIGKILL:
                process = self.start("grant", folder, program="tarnwick-consent")
                limit = time.monotonic() + 60
                while not self.waits_to_write(process):
                    self.assertLess(time.monotonic(), limit)
                    self.assertIsNone(process.poll())
                process.send_signal(number)
                if number == signal.SIGTERM:
                    call("fsfreeze", "-u", folder)
                    process.communicate()
                    self.assertEqual(process.returncode, -number)
                    self.assertEqual(plistlib.loads(content(f"{folder}/{CONSENT}")), {**long, "AutoSubmit": True})
                    self.assertEqual(os.listdir(f"{folder}/{FOLDER}"), [NAME])
                    write(f"{folder}/{CONSENT}", plistlib.dumps(long))
                    call("fsfreeze", "-f", folder)
        process.communicate()
        self.assertEqual(process.returncode, -signal.SIGKILL)
        self.assertEqual(content(f"{folder}/{CONSENT}"), plistlib.dumps(long))

    def test_the_volume_at_the_root(self):
        """Where no VOLUME is given, also in a chroot that is no mount point."""
        for kind in "mounted", "folder":
            root = f"/media/{kind}"
            os.makedirs(f"{root}/proc")
            if kind == "mounted":
                layers = [f"/media/layers/{each}" for each in ("upper", "work")]
                call("mkdir", "-p", *layers)
                self.lay(root, "lowerdir=/,upperdir={},workdir={}".format(*layers), "overlay")
            else:
                for source in "/usr", "/etc":
                    os.makedirs(root + source)
                    call("mount", "--rbind", source, root + source)
                    self.addCleanup(call, "umount", "--recursive", "--lazy", root + source)
                for link in glob.glob("/lib*"):
                    os.symlink(os.readlink(link), root + link)
            self.lay(f"{root}/proc", "ro", "proc")
            shutil.copy("/media/programs/tarnwick-consent", f"{root}/program")
            for words in ["ask"], ["show", "--json"], ["grant", "/"]:
                done = subprocess.run(["chroot", root, "/program", *words], capture_output=True)
                self.told(("tarnwick-consent", *words), done.stdout, done.stderr, done.returncode)
            self.assertEqual(os.path.exists(f"{root}/{CONSENT}"), True)
        self.assertFalse(os.path.exists(f"/{CONSENT}"))
