# tarnwick-consent on real file systems: what it prints, what it changes, and what it leaves alone.
import os
import plistlib
import resource
import signal
import subprocess

from world import CONSENT, NO, YES, Disks, call, clear, content, property_list, write

FOLDER, NAME = os.path.split(CONSENT)
OTHER_KEYS = {"AutoSubmitVersion": 4, "Name": "D\u00e4ta <&>", "Bytes": b"\0\xff", "List": [True, {"a": 1.5}]}
CHOICES = {"grant": YES, "deny": NO, "ask": {}}


def fingerprint(folder):
    return call("find", folder, "-type", "d", "-printf", "%P/ %m %u\\n", "-o", "-printf", "%P %y %m %u %s %T@ %l\\n")


class Consent(Disks):
    def consent(self, *words, **options):
        return self.tool("tarnwick-consent", *words, **options)

    # The mount point of a new volume, and where its record belongs.
    def data(self, name="data", role="Data"):
        folder = f"/media/{name}"
        self.mount(self.formatted(role=role)[0], folder)
        return folder, f"{folder}/{CONSENT}"

    # The command fails and changes nothing below the folder.
    def refuses(self, *words, folder, **options):
        before = fingerprint(folder)
        self.assertEqual((self.consent(*words, **options), fingerprint(folder)), (1, before))

    def test_changes_and_what_the_capture_makes_of_them(self):
        self.specification()
        self.volume("data")
        folder, _ = self.data()
        self.consent("show", folder)
        os.umask(0o077)
        self.addCleanup(os.umask, 0o022)
        for command in CHOICES:
            self.consent(command, folder)
            self.capture("--noninteractive")
        self.note("on the volume", call("find", folder + "/Library", "-printf", "%M %u:%g %P\\n"))
        self.consent("show", "--json", folder)

    def test_other_keys_are_kept_and_the_seed_key_decides(self):
        folder, record = self.data()
        for seed in {}, {"SeedAutoSubmit": True}, {"SeedAutoSubmit": "no boolean"}:
            for form in plistlib.FMT_XML, plistlib.FMT_BINARY:
                for command, choice in CHOICES.items():
                    write(record, plistlib.dumps({**OTHER_KEYS, **seed, "AutoSubmit": "text"}, fmt=form))
                    self.consent(command, folder)
                    self.assertEqual(plistlib.loads(content(record)), {**OTHER_KEYS, **seed, **choice})
        self.assertEqual(os.listdir(f"{folder}/{FOLDER}"), [NAME])

    def test_volumes_without_a_record_that_can_be_changed(self):
        denied, record = self.data("denied")
        write(record, plistlib.dumps(NO))
        other, hostile = self.data("other", role="Other")[0], self.data("$(reboot)")[0]
        for identifier in other, self.attach(self.locked(b"key")), hostile, "no\x1bsuch":
            self.consent("show", identifier)
            self.refuses("grant", denied, identifier, folder=denied)
        call("mount", "-o", "remount,ro", denied)
        self.refuses("grant", denied, folder=denied)
        self.refuses("grant", denied, folder=denied, user=65534)
        self.consent("show", denied, user=65534)

    def test_no_link_fifo_device_or_mount_on_the_way_to_the_record_is_followed(self):
        outside = os.path.dirname(write(f"/media/outside/real/{NAME}", property_list(NO)))
        before, (folder, record) = fingerprint(outside), self.data()
        path = record
        while path != folder:
            target, make, other_kind = (outside, os.mkdir, write) if path != record else \
                (f"{outside}/{NAME}", write, os.mkdir)
            for name, plant in {
                    "a link out of the volume": lambda: os.symlink(target, path),
                    "a FIFO": lambda: os.mkfifo(path),
                    "a device": lambda: os.mknod(path, 0o20644, os.makedev(1, 5)),
                    "a mount": lambda: (make(path), call("mount", "--bind", target, path)),
                    "a file for a folder or a folder for a file": lambda: other_kind(path)}.items():
                os.makedirs(os.path.dirname(path), exist_ok=True)
                plant()
                self.note("planted", f"{name}: {path}")
                self.refuses("grant", folder, folder=folder)
                subprocess.run(["umount", path], capture_output=True, check=False)
                clear(folder)
            path = os.path.dirname(path)
        self.assertEqual(fingerprint(outside), before)

    def test_records_that_cannot_be_read_are_left_alone(self):
        folder, record = self.data()
        for name, text in {
                "empty": b"", "only the start of a binary list": b"bplist00", "an array": plistlib.dumps([True]),
                "bytes after it": plistlib.dumps(YES) + b"\0", "above the limit": b"\0" * ((16 << 20) + 1),
                "above the limit as XML": plistlib.dumps({"a": "&" * (4 << 20)}, fmt=plistlib.FMT_BINARY)}.items():
            self.note("record", name)
            write(record, text)
            self.refuses("deny", folder, folder=folder)

    def test_failure_while_writing_leaves_no_half_record(self):
        small_files = {"limits": lambda: (signal.signal(signal.SIGXFSZ, signal.SIG_IGN),
                                          resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100)))}
        folder, record = self.data()
        self.refuses("grant", folder, folder=folder, **small_files)  # removes its new folders again
        write(record, plistlib.dumps(NO))
        self.refuses("grant", folder, folder=folder, **small_files)
