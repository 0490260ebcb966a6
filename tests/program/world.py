"""A private world for the programs under test.

A World is a mount namespace of its own with fresh /tmp, /etc/tarnwick, /var/lib/tarnwick, /usr/lib/tarnwick and
/media; the machine outside sees none of it. Everything a scenario makes lives below /media:

    /media/bin        the stand-in commands, first on PATH      /media/calls     one line for each call of one
    /media/programs   the programs under test                   /media/preboot   the destination volume
    /media/NAME       the source volume NAME
"""
import collections
import contextlib
import ctypes
import os
import plistlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import termios
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
BIN = os.path.abspath(os.environ.get("TARNWICK_BIN", "build/release/bin"))
STAMP = re.compile(r"\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d")
FOLDER = "/tmp/tarnwick.TEMP/tarnwick-STAMP"
STORE = "/media/preboot/tarnwick"
PATH = "/media/bin:/usr/sbin:/usr/bin:/sbin:/bin"
LIMIT = 1 << 30
PATIENCE = 120  # seconds after which a run counts as hung
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 32, 4096, 16384, 1 << 18
MNT_DETACH, CLONE_NEWNS = 2, 0x20000

PREBOOT = "volctl info -plist Preboot"
CONSENT = "Library/Application Support/FaultKeeper/DiagnosticMessagesHistory.plist"
YES, NO = {"AutoSubmit": True}, {"AutoSubmit": False}
NVRAM = "boot-args\t-v\n"

libc = ctypes.CDLL(None, use_errno=True)
# Held open, as a world covers these folders.
OUTSIDE = [os.open(path, os.O_RDONLY | os.O_DIRECTORY) for path in ("/tmp", "/etc", "/var/lib")]


def system_call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), str(arguments))


def mount(source, target, kind=None, flags=0, data=None):
    text = [value and value.encode() for value in (source, target, kind, data)]
    system_call(libc.mount, *text[:3], ctypes.c_ulong(flags), text[3])


def call(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, **options).stdout.decode()


def on_terminal(words, prompt, *lines, secret=True, kill=None):
    """Answers each prompt on a new terminal, what is secret once that shows no more what is typed. What was shown in
    all, the exit status, and whether it shows again what is typed."""
    def echoes():
        return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)

    child, terminal = pty.fork()
    if child == 0:
        os.execv(words[0], words)
    shown = b""
    with contextlib.suppress(OSError):  # the other end is closed
        for number, line in enumerate(lines, 1):
            while shown.count(prompt) < number:
                shown += os.read(terminal, 1024)
            deadline = time.monotonic() + PATIENCE
            while secret and echoes():
                if time.monotonic() > deadline:
                    raise AssertionError("the terminal still shows what is typed")
            os.write(terminal, line)
        if kill:
            os.kill(child, kill)
        while piece := os.read(terminal, 1024):
            shown += piece
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    end = shown, status, echoes()
    os.close(terminal)
    return end


def property_list(value):
    """Without the document type line, which no reader needs."""
    return re.sub("<!DOCTYPE.*\n", "", plistlib.dumps(value).decode())


def write(path, content=""):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    os.chmod(path, 0o644)
    return path


def content(path):
    with open(path, "rb") as file:
        return file.read()


def read(path):
    return os.fsdecode(content(path))


def clear(folder):
    call("find", folder, "-mindepth", "1", "-delete")


def traces():
    """What runs could leave on the machine itself."""
    ours = re.compile(r"tarnwick(\.\w{6}|-[\d:-]*\.log)?")
    return sorted(name for folder in OUTSIDE for name in os.listdir(folder) if ours.fullmatch(name))


def enter_namespace():
    system_call(libc.unshare, CLONE_NEWNS)
    mount("none", "/", flags=MS_REC | MS_PRIVATE)
    # Held open, as the build may lie below a folder that a world covers.
    return traces(), os.open(BIN, os.O_PATH | os.O_DIRECTORY)


# What a stand-in answers once. `do` is shell text that it runs first; $folder is the run's capture folder.
Answer = collections.namedtuple("Answer", "out status do", defaults=("", 0, ":"))
# One of a capture specification, with the option that its search needs.
Directive = collections.namedtuple("Directive", "base expression description option", defaults=("",))


class Volume:
    def __init__(self, name, number, role="Data", mounted=True):
        self.name, self.device, self.role, self.uuid = name, f"disk{number}", role, f"UUID-{number}"
        self.mount_point = f"/media/{name}"
        self.label = f"'{name}' ({self.device} -> {self.mount_point})"
        self.info = property_list({"DeviceIdentifier": self.device, "VolumeName": name,
                                   "MountPoint": self.mount_point if mounted else ""})

    def record(self):
        return {"DeviceIdentifier": self.device, "DiskUUID": self.uuid, "Role": self.role}


class World:
    entered = None

    def __init__(self):
        World.entered = World.entered or enter_namespace()
        self.mounts, self.volumes, self.directives = [], [], []
        self.lay("/tmp", "mode=1777")
        self.lay("/media", "mode=755")
        for folder in ("bin", "answers", "preboot", "programs", "cwd", "counts"):
            os.mkdir(f"/media/{folder}")
        os.chmod("/media/counts", 0o777)
        mount(f"/proc/self/fd/{World.entered[1]}", "/media/programs", flags=MS_BIND)
        for path in ("/etc", "/usr/lib", "/var/lib"):
            self.hide_installed(path)
        for command in ("volctl", "nvram", "man"):
            self.stand_in(command)
        self.preboot = property_list({"MountPoint": "/media/preboot", "VolumeName": "Preboot"})
        self.answer(PREBOOT, self.preboot)
        self.answer("nvram -p", NVRAM)
        self.list_volumes()

    def lay(self, target, options, kind="tmpfs"):
        mount("world", target, kind, data=options)
        self.mounts.append(target)

    def hide_installed(self, path):
        """An own layer above `path`, in which `path`/tarnwick is empty, also where the product is installed."""
        layer = "/media/layers" + path
        os.makedirs(layer + "/upper")
        os.makedirs(layer + "/work")
        self.lay(path, f"lowerdir={path},upperdir={layer}/upper,workdir={layer}/work", "overlay")
        os.makedirs(path + "/tarnwick", exist_ok=True)
        self.lay(path + "/tarnwick", "mode=755")

    def close(self):
        """Whatever else is mounted lies below these and goes with them."""
        for target in reversed(self.mounts):
            system_call(libc.umount2, target.encode(), MNT_DETACH)

    def stand_in(self, command):
        shutil.copy(f"{HERE}/stand-in", f"/media/bin/{command}")

    def answer(self, line, *answers):
        """Answers to `line`, in turn; the last one again and again. A text stands for that text and status 0."""
        table = "/media/answers/" + line.replace("/", "%")
        shutil.rmtree(table, ignore_errors=True)
        write(table + "/turn", "0")
        for turn, answer in enumerate(answers, 1):
            answer = Answer(answer) if isinstance(answer, str) else answer
            write(f"{table}/{turn}/out", answer.out)
            write(f"{table}/{turn}/status", str(answer.status))
            write(f"{table}/{turn}/do", answer.do + "\n")

    def calls(self):
        return read("/media/calls").splitlines() if os.path.exists("/media/calls") else []

    def allow_internal(self):
        write("/etc/tarnwick/internal-policies.plist", property_list({"com.vexlor.tarnwick": True}))

    def volume(self, name, consent=None, files=(), **more):
        """A source volume with its consent file, where `consent` is given, and the named files."""
        volume = Volume(name, len(self.volumes) + 1, **more)
        os.mkdir(volume.mount_point)
        if consent is not None:
            content = consent if isinstance(consent, str) else property_list(consent)
            write(f"{volume.mount_point}/{CONSENT}", content)
        for file in files:
            write(volume.mount_point + file, f"content of {file} on {name}\n")
        self.volumes.append(volume)
        self.answer(f"volctl info -plist {volume.device}", volume.info)
        self.list_volumes()
        return volume

    def list_volumes(self):
        self.list_groups({"Containers": [{"VolumeGroups": [{"Volumes": [each.record() for each in self.volumes]}]}]})

    def list_groups(self, value):
        self.groups = value if isinstance(value, str) else property_list(value)
        self.answer("volctl zkfs listGroups -plist", self.groups)

    def key_pair(self):
        if not os.path.exists("/media/key.pem"):
            self.qvx("keygen", "-o", "/media/key")
        return read("/media/key.pub").strip()

    def specification(self, *directives, **more):
        """A capture specification of (base path, expression) tuples; behind them may stand the option of the search."""
        self.allow_internal()
        self.directives = [Directive(base, expression, f"what lies in {base}", *option)
                           for base, expression, *option in directives]
        entries = [dict(zip(("BasePath", "Expression", "DocString"), each)) for each in self.directives]
        content = {"CaptureSpec": entries, "archive_public_key": self.key_pair(), **more}
        return write("/media/spec.plist", property_list({k: v for k, v in content.items() if v is not None}))

    def start(self, *arguments, program="tarnwick", argv0=None, environment=(), limits=None, **more):
        everywhere = {"PATH": PATH, "TZ": "UTC", "HOME": "/root"}
        if limits:  # a build that counts lines complains where it may not write them down
            everywhere["GCOV_PREFIX"] = "/media/counts"
        options = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **more}
        return subprocess.Popen([argv0 or program, *arguments], executable=f"/media/programs/{program}",
                                env={**everywhere, **dict(environment)}, cwd="/media/cwd", preexec_fn=limits,
                                start_new_session=True, **options)

    def start_capture(self, *arguments, **more):
        return self.start("--capturespec", "/media/spec.plist", *arguments, **more)

    def run(self, *arguments, answers="", **more):
        """Runs to the end. `answers` is what standard input holds."""
        process = self.start(*arguments, **more)
        try:
            out, errors = process.communicate(answers.encode(), timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise
        return Result(process.returncode, out, errors)

    def capture(self, *arguments, **more):
        """A run with the capture specification made before."""
        return self.run("--capturespec", "/media/spec.plist", *arguments, **more)

    def qvx(self, *arguments):
        done = subprocess.run(["/media/programs/qvx", *arguments], capture_output=True, check=False)
        if done.returncode:
            raise AssertionError(f"qvx {arguments}: status {done.returncode}: {done.stderr.decode()}")
        return done.stdout.decode()

    def stored(self, folder=STORE):
        return sorted(os.listdir(folder)) if os.path.isdir(folder) else []

    def entries(self, archive, key="/media/key.pem"):
        """The paths in an archive, in its order, with stamps and temporary names replaced."""
        self.qvx("verify", "--key", key, archive)
        return [normal("/" + line.split()[-1].lstrip("/")) for line in
                self.qvx("list", "--key", key, archive).splitlines()]

    def content(self, archive, path, key="/media/key.pem"):
        return self.qvx("cat", "--key", key, archive, path)

    def sparse(self, name, size):
        """A stored capture, or a file beside one, that takes no room."""
        path = write(f"{STORE}/{name}")
        os.truncate(path, size)
        return path

    def dated_store(self, *captures):
        """A destination volume on a file system of its own, with captures as (name, size, year of the last change)."""
        for name, size, _ in captures:
            self.sparse(name, size)
        call("mkfs.ext4", "-q", "-d", "/media/preboot", "/media/disk", "4G")
        changes = "".join(f"set_inode_field /tarnwick/{name} ctime {year}0101000000\n" for name, _, year in captures)
        call("debugfs", "-w", "-f", "-", "/media/disk", input=changes.encode())
        clear("/media/preboot")
        call("mount", "-o", "loop", "/media/disk", "/media/preboot")


def normal(text):
    return re.sub(r"/tmp/tarnwick\.\w{6}/", "/tmp/tarnwick.TEMP/", STAMP.sub("STAMP", text))


class Result:
    def __init__(self, status, out, errors):
        self.status, self.raw, self.errors = status, out.decode(errors="surrogateescape"), errors.decode()
        self.console = normal(self.raw)
        stamp = STAMP.search(self.raw)
        self.stamp = stamp and stamp.group()
        log = f"/tmp/tarnwick-{self.stamp}.log"
        self.log = normal(read(log)) if os.path.isfile(log) and not os.path.islink(log) else ""
        self.archive = f"{STORE}/tarnwick-{self.stamp}.qvx"

    def temporary(self):
        """The archive as it was written, before its copy into the store."""
        return re.search('^Captured data to "(.*)"$', self.raw, re.MULTILINE).group(1)


class Scenario(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.world = World()
        self.addCleanup(lambda: self.assertEqual(traces(), World.entered[0]))
        self.addCleanup(self.world.close)

    def check(self, result, story, status=0, errors=""):
        self.assertEqual(result.errors, errors)
        self.assertEqual(result.console, story.console)
        self.assertEqual(result.log, story.log)
        self.assertEqual(result.status, status)

    def check_archive(self, result, story):
        self.assertEqual(self.world.entries(result.archive), story.files + [f"{FOLDER}/tarnwick-STAMP.log"])


def main():
    if os.geteuid() != 0:
        print("these tests need root for a mount namespace of their own")
        sys.exit(77)
    unittest.main(verbosity=2)
