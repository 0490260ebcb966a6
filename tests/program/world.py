# A private world for the programs under test, and a record of what they print and which files they leave.
#
# A Scenario has fresh folders /tmp, /media, /etc/tarnwick, /usr/lib/tarnwick, /usr/share/tarnwick and /var/lib/tarnwick
# in a private mount namespace, so that nothing changes on the machine outside. All that it makes is below /media:
#
#     /media/bin        the stand-in commands, first on PATH      /media/preboot   the destination volume
#     /media/programs   the programs under test                   /media/NAME      the source volume NAME
#
# TARNWICK_BIN is the folder of the programs, TARNWICK_SANITIZE names the sanitizers in them. The record is compared with data/transcripts at the end. With RECORD=1 in
# the environment that file is written instead: read it as a user would before you commit it.
import collections
import contextlib
import ctypes
import errno
import os
import pathlib
import plistlib
import pty
import re
import shlex
import shutil
import signal
import struct
import subprocess
import termios
import unittest
import uuid


CLONE_NEWNS = 0x20000
ENTERED = os.geteuid() == 0 and ctypes.CDLL(None).unshare(CLONE_NEWNS) == 0
if ENTERED:
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)


# A path of the folder that still works where the mounts of a world cover it.
def lasting(folder):
    return f"/proc/{os.getpid()}/fd/{os.open(folder, os.O_PATH | os.O_DIRECTORY)}"


# A build below /tmp is covered by the world. One that counts lines writes the counts where the build is.
COUNTS = {}
if os.path.realpath(os.environ["TARNWICK_BIN"]).startswith("/tmp/"):
    COUNTS = {"GCOV_PREFIX": lasting("/tmp"), "GCOV_PREFIX_STRIP": "1"}
    os.environ.update(COUNTS)
HERE = lasting(os.path.dirname(os.path.abspath(__file__)))
BIN = lasting(os.environ["TARNWICK_BIN"])
SANITIZED = bool(os.environ.get("TARNWICK_SANITIZE"))  # slow, and with an allocator of their own
DATA = HERE + "/../data"
STORE = "/media/preboot/tarnwick"
PATH = "/media/bin:/usr/sbin:/usr/bin:/sbin:/bin"
PREBOOT = "volctl info -plist Preboot"
SPECIFIED = "--capturespec", "/media/spec.plist"
GROUPS = "volctl zkfs listGroups -plist"
CONSENT = "Library/Application Support/FaultKeeper/DiagnosticMessagesHistory.plist"
YES, NO = {"AutoSubmit": True}, {"AutoSubmit": False}
STAMP = re.compile(r"\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d")

# One answer of a stand-in. `do` is shell text that it runs first; $folder is the run's capture folder.
Answer = collections.namedtuple("Answer", "out status do", defaults=("", 0, ":"))
# The outcome of a run. `archive` and `temporary` are its archive in the store and before the copy.
Result = collections.namedtuple("Result", "status out stamp archive temporary")


def call(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, **options).stdout.decode()


# Files without a name cannot be made in this process from now on, as on some file systems. For amd64.
def refuse_unnamed_files():
    flag = os.O_TMPFILE & ~os.O_DIRECTORY
    code = [(0x20, 0, 0, 0), (0x15, 0, 3, 257), (0x20, 0, 0, 32), (0x45, 0, 1, flag),  # openat() with the flag
            (0x06, 0, 0, 0x50000 | errno.EOPNOTSUPP), (0x06, 0, 0, 0x7fff0000)]  # all else is allowed
    program = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *line) for line in code))
    seccomp = struct.pack("HxxxxxxQ", len(code), ctypes.addressof(program))
    if ctypes.CDLL(None, use_errno=True).prctl(22, 2, seccomp) != 0:
        raise OSError(ctypes.get_errno(), "seccomp")


# Runs a script in the folder, which it makes.
def shell(folder, script):
    os.makedirs(folder, exist_ok=True)
    return call("bash", "-euc", script, cwd=folder)


# Types a line at each prompt for a secret on a new terminal. Returns what was shown, the exit status, and whether the
# echo is on again.
def on_terminal(words, prompt, *lines):
    child, terminal = pty.fork()
    if child == 0:
        signal.signal(signal.SIGINT, signal.SIG_DFL)  # a shell ignores it for what it runs in the background
        os.execv(words[0], words)

    def echoes():
        return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)

    shown = b""
    with contextlib.suppress(OSError):  # the other end is closed
        for number, line in enumerate(lines, 1):
            while shown.count(prompt) < number:
                shown += os.read(terminal, 1024)
            while echoes():
                pass
            os.write(terminal, line)
        while piece := os.read(terminal, 1024):
            shown += piece
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    end = shown.replace(b"\r\n", b"\n"), status, echoes()
    os.close(terminal)
    return end


# On one line, and without the document type, which no reader needs.
def property_list(value):
    return re.sub(r"<!DOCTYPE.*\n|(?<=>)\s+(?=<)", "", plistlib.dumps(value).decode())


def volume_info(name, device, folder):
    return property_list({"DeviceIdentifier": device, "VolumeName": name, "MountPoint": folder})


def write(path, content=""):
    file = pathlib.Path(path)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content if isinstance(content, bytes) else content.encode())
    file.chmod(0o644)
    return path


def overwrite(path, at, content):
    with open(path, "r+b") as file:
        file.seek(at)
        file.write(content)


def content(path):
    return pathlib.Path(path).read_bytes()


def read(path):
    return content(path).decode(errors="backslashreplace")


def clear(folder):
    call("find", folder, "-mindepth", "1", "-delete")


# The file systems of the tests: the size in MiB (xfs needs 300; the images are sparse) and the command that makes one.
FORMATS = {"ext4": (64, "mkfs.ext4 -q -U {}"), "xfs": (320, "mkfs.xfs -q -m uuid={}"),
           "btrfs": (128, "mkfs.btrfs -q -U {}")}
LUKS = "cryptsetup luksFormat -q --type luks2 --pbkdf pbkdf2 --pbkdf-force-iterations 1000 --key-file -"


class Scenario(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        if not ENTERED:
            self.skipTest("needs root")
        self.record, self.noted, self.volumes, self.key = "", {}, [], "/media/key.pem"
        self.known = {read(f"{DATA}/console/{name}.txt"): f"<{name}>\n" for name in ("introduction", "completion")}
        self.lay("/tmp", "mode=1777")
        self.lay("/media", "mode=755")
        for folder in ("bin", "answers", "preboot", "programs", "cwd", "counts"):
            os.mkdir(f"/media/{folder}")
        os.chmod("/media/counts", 0o777)
        call("mount", "--no-canonicalize", "--bind", BIN, "/media/programs")
        for path in ("/etc", "/usr/lib", "/usr/share", "/var/lib"):  # also where the product is installed
            layers = [f"/media/{kind}{path}" for kind in ("upper", "work")]
            call("mkdir", "-p", *layers)
            self.lay(path, "lowerdir={},upperdir={},workdir={}".format(path, *layers), "overlay")
            self.lay(path + "/tarnwick", "mode=755")
        for command in ("volctl", "nvram", "man"):
            shutil.copy(f"{HERE}/stand-in", f"/media/bin/{command}")
        self.answer(PREBOOT, property_list({"MountPoint": "/media/preboot", "VolumeName": "Preboot"}))
        self.answer("nvram -p", "boot-args\t-v\n")
        self.list_volumes()

    def tearDown(self):
        path = f"{DATA}/transcripts/{type(self).__name__}/{self._testMethodName.removeprefix('test_')}.txt"
        if self.record and "RECORD" in os.environ:
            write(path, self.record)
        self.assertEqual(self.record, read(path) if self.record else "")

    # Mounts a file system until the end of the test, with all that is mounted below it. Creates the folder.
    def lay(self, target, options, kind="tmpfs", source="world"):
        call("mount", "-t", kind, "-o", "X-mount.mkdir," + options, source, target)
        self.addCleanup(call, "umount", "--lazy", target)

    # Answers to `line`, in turn; the last one is repeated. A text means that text and status 0.
    def answer(self, line, *answers):
        table = "/media/answers/" + line.replace("/", "%")
        shutil.rmtree(table, ignore_errors=True)
        for turn, answer in enumerate(answers):
            out, status, do = Answer(answer) if isinstance(answer, str) else answer
            write(f"{table}/{turn}", f"{do}\nprintf %s {shlex.quote(out)}\nexit {status}\n")
            if out.startswith("<?xml"):
                self.known.setdefault(out, f"<answer {turn} to {line}>")

    # A source volume with its consent file, where `consent` is given, and the named files. Its device.
    def volume(self, name, consent=None, files=(), role="Data", mounted=True, device=None):
        number = len(self.volumes) + 1
        folder, device = f"/media/{name}", device or f"disk{number}"
        os.mkdir(folder)
        if consent is not None:
            write(f"{folder}/{CONSENT}", consent if isinstance(consent, str) else property_list(consent))
        for file in files:
            write(folder + file, f"content of {file} on {name}\n")
        self.volumes.append({"DeviceIdentifier": device, "DiskUUID": f"UUID-{number}", "Role": role})
        self.answer(f"volctl info -plist {device}", volume_info(name, device, folder if mounted else ""))
        self.list_volumes()
        return device

    def list_volumes(self):
        self.answer(GROUPS, property_list({"Containers": [{"VolumeGroups": [{"Volumes": self.volumes}]}]}))

    # A capture specification of (base path, expression) pairs, for an internal build.
    def specification(self, *directives, **more):
        write("/etc/tarnwick/internal-policies.plist", property_list({"com.vexlor.tarnwick": True}))
        if not os.path.exists(self.key):
            self.qvx("keygen", "-o", self.key.removesuffix(".pem"))
        entries = [{"BasePath": base, "Expression": expression, "DocString": f"what lies in {base}"}
                   for base, expression in directives]
        content = {"CaptureSpec": entries, "archive_public_key": read(self.key.replace(".pem", ".pub")).strip(), **more}
        write("/media/spec.plist", property_list(content))

    def start(self, *arguments, program="tarnwick", environment=(), limits=None, **more):
        everywhere = {"PATH": PATH, "TZ": "UTC", "HOME": "/root", **COUNTS}
        if limits or "user" in more:  # a build that counts lines complains where it cannot write the counts
            everywhere.update(GCOV_PREFIX=f"/media/counts/{uuid.uuid4()}", GCOV_ERROR_FILE="/dev/null")
        options = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "cwd": "/media/cwd"}
        return subprocess.Popen([program, *arguments], executable=f"/media/programs/{program}",
                                env={**everywhere, **dict(environment)}, preexec_fn=limits, **{**options, **more})

    # A run that is recorded. `answers` is its standard input.
    def tarnwick(self, *arguments, answers="", **more):
        process = self.start(*arguments, **more)
        out, errors = process.communicate(answers.encode())
        self.report(("tarnwick", *arguments), out, errors, process.returncode)
        text = out.decode(errors="replace")
        stamp, archive, temporary = (found and found[1] for found in (re.search(pattern, text) for pattern in (
            rf'Logging to ".*({STAMP.pattern})', 'final archive copied to "(.*)"', 'Captured data to "(.*)"')))
        archive = archive and os.path.join("/media/cwd", archive)
        log = f"/tmp/tarnwick-{stamp}.log"
        self.note("log", read(log) if os.path.exists(log) else "")
        self.note_files("left", "/tmp /media/preboot /media/cwd", "%M %p", "-mindepth", "1")
        self.note("archive", "\n".join(self.entries(archive) if archive else []))
        return Result(process.returncode, text, stamp, archive, temporary)

    # With the capture specification made before, and nothing yet in /tmp.
    def capture(self, *arguments, **more):
        clear("/tmp")
        return self.tarnwick(*SPECIFIED, *arguments, **more)

    # A recorded run of a companion. It has no terminal, and finds no other command.
    def tool(self, program, *words, typed=b"", environment=(), **more):
        process = self.start(*words, program=program, environment={"PATH": "/nowhere", **dict(environment)},
                             start_new_session=True, **more)
        out, errors = process.communicate(typed)
        self.report((program, *words), out or b"", errors, process.returncode)
        return process.returncode

    def report(self, words, out, errors, status):
        self.record += "".join(line + "\n" for line in self.normal("$ " + shlex.join(words)))
        self.note("said", f"{out.decode(errors='backslashreplace')}[status {status}]")
        self.note("errors", errors.decode() if status >= 0 else "")  # the library prints the reason of an abort

    # One part of the record. Lines at its beginning and end that equal those of the last part of this title are
    # only counted.
    def note(self, title, text):
        lines, before = self.normal(text), self.noted.get(title, [])
        head = len(os.path.commonprefix([lines, before]))
        tail = len(os.path.commonprefix([lines[head:][::-1], before[head:][::-1]]))
        shown = [f"({head} lines as before)"] * bool(head) + lines[head:len(lines) - tail] + \
            [f"({tail} lines as before)"] * bool(tail)
        self.record += "".join(line + "\n" for line in ([f"-- {title}"] if lines else []) + shown)
        self.noted[title] = lines

    # `form` is of find's -printf.
    def note_files(self, title, folders, form, *tests):
        found = call("find", *folders.split(), *tests, "-printf", form + "\n")
        self.note(title, "\n".join(sorted(self.normal(found))))

    def normal(self, text):
        for known in sorted(self.known, key=len, reverse=True):
            text = text.replace(known, self.known[known])
        text = re.sub(r"(?<=/\.tarnwick-)[0-9a-f]{16}", "RANDOM", text)
        return re.sub(r"tmp/tarnwick\.\w{6}", "tmp/tarnwick.TEMP", STAMP.sub("STAMP", text)).splitlines()

    def qvx(self, *arguments):
        return call("/media/programs/qvx", *arguments)

    # The paths in an archive, in its order.
    def entries(self, archive):
        self.qvx("verify", "--key", self.key, archive)
        return [line.split()[-1] for line in self.qvx("list", "--key", self.key, archive).splitlines()]


# Scenarios with real file systems on loop devices. Their numbers are left out of the record.
class Disks(Scenario):
    def setUp(self):
        super().setUp()
        self.lay("/run", "mode=755")
        self.roles = {}

    def normal(self, text):
        return [re.sub(r"loop\d+", "LOOP", re.sub(" +", " ", line)) for line in super().normal(text)]

    def image(self, megabytes):
        os.truncate(path := write(f"/media/images/{uuid.uuid4()}"), megabytes << 20)
        return path

    # An image with a file system on it, and the identity of that, which volumes.plist gives the role.
    def formatted(self, *options, format="ext4", role=None):
        (megabytes, make), identity = FORMATS[format], str(uuid.uuid4())
        call(*make.format(identity).split(), *options, path := self.image(megabytes))
        self.known[identity] = "<identity>"
        if role:
            self.set_role(identity, role)
        return path, identity

    # An encrypted image for data.
    def locked(self, key):
        call(*LUKS.split(), path := self.image(20), input=key)
        self.set_role(call("cryptsetup", "luksUUID", path).strip(), "Data")
        return path

    def set_role(self, identity, role):
        self.roles[identity] = role
        write("/etc/tarnwick/volumes.plist", property_list({"Roles": self.roles}))

    # The name of a loop device over the image.
    def attach(self, path):
        device = call("losetup", "-f", "--show", path).strip()
        self.addCleanup(call, "losetup", "-d", device)
        return os.path.basename(device)

    # Mounts the image on the folder. The name of its loop device.
    def mount(self, path, folder):
        self.lay(folder, "rw", "auto", "/dev/" + (device := self.attach(path)))
        return device
