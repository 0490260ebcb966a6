"""A private world for the programs under test, and a small language to tell what a run in it should say.

A World is a mount namespace of its own with fresh /tmp, /etc/tarnwick, /var/lib/tarnwick, /usr/lib/tarnwick and
/media; the machine outside sees none of it. Everything a scenario makes lives below /media:

    /media/bin        the stand-in commands, first on PATH      /media/calls     one line for each call of one
    /media/programs   the programs under test                   /media/preboot   the destination volume
    /media/NAME       the source volume NAME

A Story is told event by event; the whole console and the whole log follow from it and are compared exactly.
"""
import ctypes
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest
from xml.sax.saxutils import escape

BIN = os.path.abspath(os.environ.get("TARNWICK_BIN", "build/release/bin"))
STAMP = re.compile(r"\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d")
FOLDER = "/tmp/tarnwick.TEMP/tarnwick-STAMP"
LIMIT = 1 << 30
PATIENCE = 120  # seconds after which a run counts as hung
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 32, 4096, 16384, 1 << 18
MNT_DETACH, CLONE_NEWNS = 2, 0x20000

INTRODUCTION = """
This utility is used to enable troubleshooting of returned Vexlor hardware by preserving diagnostic data that is \
potentially useful to Vexlor.

Please note the following:
 - The captured data is copied to a special disk location where it can be accessed by Vexlor engineers after this \
system is returned.
 - The captured data is stored in an encrypted archive.
 - Vexlor attempts to minimize exposure to personal information both at the time of capture and when utilized later by \
Vexlor.
 - The captured data as well as a detailed log can be reviewed by the user by examining the execution log.

"""
COMPLETION = """
Capture execution is complete! You may view a detailed log of the capture process at the path shown above.

If you wish to remove all captured data from this system you may issue the command 'tarnwick --cleanup'

"""
RULE = "#" * 86
BANNER = f"""
{RULE}
# \n# This source volume does not allow collection of Diagnostics & Utilization data. \n\
# Please indicate if you give one-time consent to collection of Diagnostics & Utilization data for this volume.
# \n{RULE}

"""
QUESTION = "Do you agree? (yes/no)\n"
PRUNING = "total captured data size exceeds limit, pruning old data..."
NVRAM = "boot-args\t-v\n"

libc = ctypes.CDLL(None, use_errno=True)


def system_call(function, *arguments):
    if function(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), str(arguments))


def mount(source, target, kind=None, flags=0, data=None):
    text = [value and value.encode() for value in (source, target, kind, data)]
    system_call(libc.mount, text[0], text[1], text[2], ctypes.c_ulong(flags), text[3])


def unmount(target):
    system_call(libc.umount2, target.encode(), MNT_DETACH)


def property_list(value):
    """The XML form of a value; without a document type line, which no reader needs."""

    def element(value):
        if isinstance(value, bool):
            return "<true/>" if value else "<false/>"
        if isinstance(value, int):
            return f"<integer>{value}</integer>"
        if isinstance(value, str):
            return f"<string>{escape(value)}</string>"
        if isinstance(value, dict):
            pairs = (f"<key>{escape(key)}</key>{element(item)}" for key, item in value.items())
            return "<dict>" + "".join(pairs) + "</dict>"
        return "<array>" + "".join(map(element, value)) + "</array>"

    return f'<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">{element(value)}</plist>\n'


def write(path, content="", mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    os.chmod(path, mode)
    return path


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


class Machine:
    """What the scenarios must not change, seen through folders opened before the namespace was made."""

    def __init__(self):
        self.folders = {path: os.open(path, os.O_RDONLY | os.O_DIRECTORY) for path in ("/tmp", "/etc", "/var/lib")}
        self.before = self.look()

    def look(self):
        ours = re.compile(r"tarnwick(\.\w{6}|-[\d:-]*\.log)?")
        return {path: {name for name in os.listdir(folder) if ours.fullmatch(name)}
                for path, folder in self.folders.items()}


def enter_namespace():
    if os.geteuid() != 0:
        print("these tests need root for a mount namespace of their own")
        sys.exit(77)
    machine = Machine()
    system_call(libc.unshare, CLONE_NEWNS)
    mount("none", "/", flags=MS_REC | MS_PRIVATE)
    # Held open, as the build may lie below a folder that a world covers.
    return machine, os.open(BIN, os.O_PATH | os.O_DIRECTORY)


STAND_IN = """#!/bin/sh
name=${0##*/}
line="$name${*:+ $*}"
printf '%s\\n' "$line" >>/media/calls
table=/media/answers/$(printf %s "$line" | tr / %)
[ -d "$table" ] || { printf 'no answer for: %s\\n' "$line" >&2; exit 64; }
turn=$(($(cat "$table/turn") + 1))
[ -d "$table/$turn" ] || turn=$((turn - 1))
echo $turn >"$table/turn"
folder=$(echo /tmp/tarnwick.*/tarnwick-*)
. "$table/$turn/do"
cat "$table/$turn/out"
exit $(cat "$table/$turn/status")
"""


class Answer:
    """What a stand-in answers once. `do` is shell text that it runs first; $folder is the run's capture folder."""

    def __init__(self, out="", status=0, do=":"):
        self.out, self.status, self.do = out, status, do


class Volume:
    def __init__(self, name, device, role, uuid, mounted):
        self.name, self.device, self.role, self.uuid = name, device, role, uuid
        self.mount_point = f"/media/{name}"
        self.label = f"'{name}' ({device} -> {self.mount_point})"
        self.info = property_list({"DeviceIdentifier": device, "VolumeName": name, "ZKFSContainerReference": "disk9",
                                   "MountPoint": self.mount_point if mounted else ""})

    def record(self):
        return {"DeviceIdentifier": self.device, "DiskUUID": self.uuid, "Role": self.role}


CONSENT = "Library/Application Support/FaultKeeper/DiagnosticMessagesHistory.plist"


class World:
    entered = None

    def __init__(self):
        World.entered = World.entered or enter_namespace()
        self.mounts, self.volumes, self.groups = [], [], None
        self.lay("/tmp", "mode=1777")
        self.lay("/media", "mode=755")
        for folder in ("bin", "answers", "preboot", "programs", "cwd"):
            os.mkdir(f"/media/{folder}")
        self.mount(f"/proc/self/fd/{World.entered[1]}", "/media/programs", flags=MS_BIND)
        for path in ("/etc", "/usr/lib", "/var/lib"):
            self.hide_installed(path)
        for command in ("volctl", "nvram", "man"):
            self.stand_in(command)
        self.preboot = property_list({"MountPoint": "/media/preboot", "VolumeName": "Preboot",
                                      "DeviceIdentifier": "disk0s2", "ZKFSContainerReference": "disk0"})
        self.answer("volctl info -plist Preboot", self.preboot)
        self.answer("nvram -p", NVRAM)

    def mount(self, source, target, *rest, **more):
        mount(source, target, *rest, **more)
        self.mounts.append(target)

    def lay(self, target, options):
        self.mount("world", target, "tmpfs", data=options)

    def hide_installed(self, path):
        """An own layer above `path`, in which `path`/tarnwick is empty, also where the product is installed."""
        layer = "/media/layers" + path
        os.makedirs(layer + "/upper")
        os.makedirs(layer + "/work")
        self.mount("world", path, "overlay", data=f"lowerdir={path},upperdir={layer}/upper,workdir={layer}/work")
        os.makedirs(path + "/tarnwick", exist_ok=True)
        self.lay(path + "/tarnwick", "mode=755")

    def close(self):
        for target in reversed(self.mounts):
            unmount(target)

    def stand_in(self, command):
        write(f"/media/bin/{command}", STAND_IN, 0o755)

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

    def volume(self, name, consent=None, files=(), role="Data", mounted=True):
        """A source volume with its consent file, where `consent` is given, and the named files."""
        number = len(self.volumes) + 1
        volume = Volume(name, f"disk{number}", role, f"UUID-{number}", mounted)
        os.mkdir(volume.mount_point)
        if consent is not None:
            content = consent if isinstance(consent, (str, bytes)) else property_list(consent)
            write(f"{volume.mount_point}/{CONSENT}", content)
        for file in files:
            write(volume.mount_point + file, f"content of {file} on {name}\n")
        self.volumes.append(volume)
        self.answer(f"volctl info -plist {volume.device}", volume.info)
        self.list_groups({"Containers": [{"VolumeGroups": [{"Volumes": [v.record() for v in self.volumes]}]}]})
        return volume

    def list_groups(self, value):
        self.groups = value if isinstance(value, str) else property_list(value)
        self.answer("volctl zkfs listGroups -plist", self.groups)

    def key_pair(self):
        if not os.path.exists("/media/key.pem"):
            subprocess.run(["/media/programs/qvx", "keygen", "-o", "/media/key"], check=True, capture_output=True)
        return read("/media/key.pub").strip()

    def specification(self, *directives, key=None, **more):
        """A capture specification of (base path, expression) or (base path, expression, description) tuples."""
        self.allow_internal()
        self.directives = [(each + (f"what lies in {each[0]}",))[:3] for each in directives]
        entries = [dict(zip(("BasePath", "Expression", "DocString"), each)) for each in self.directives]
        content = {"CaptureSpec": entries, "archive_public_key": self.key_pair() if key is None else key}
        content.update(more)
        return write("/media/spec.plist", property_list({k: v for k, v in content.items() if v is not None}))

    def environment(self, more=()):
        return {"PATH": "/media/bin:/usr/sbin:/usr/bin:/sbin:/bin", "TZ": "UTC", "HOME": "/root", **dict(more)}

    def start(self, *arguments, program="tarnwick", argv0=None, environment=(), limits=None, **more):
        return subprocess.Popen([argv0 or program, *arguments], executable=f"/media/programs/{program}",
                                env=self.environment(environment), cwd="/media/cwd", preexec_fn=limits,
                                start_new_session=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)

    def run(self, *arguments, answers="", **more):
        """Runs to the end. `answers` is what standard input holds."""
        process = self.start(*arguments, stdin=subprocess.PIPE, **more)
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

    def stored(self, folder="/media/preboot/tarnwick"):
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
        path = write(f"/media/preboot/tarnwick/{name}")
        os.truncate(path, size)
        return path

    def dated_store(self, *captures):
        """A destination volume on a file system of its own, with captures as (name, size, year of the last change)."""
        write("/media/disk")
        os.truncate("/media/disk", 4 << 30)
        for name, size, _ in captures:
            self.sparse(name, size)
        subprocess.run(["mkfs.ext4", "-q", "-d", "/media/preboot", "/media/disk"], check=True, capture_output=True)
        changes = "".join(f"set_inode_field /tarnwick/{name} ctime {year}0101000000\n" for name, _, year in captures)
        subprocess.run(["debugfs", "-w", "-f", "-", "/media/disk"], input=changes.encode(), check=True,
                       capture_output=True)
        shutil.rmtree("/media/preboot/tarnwick")
        subprocess.run(["mount", "-o", "loop", "/media/disk", "/media/preboot"], check=True)
        self.mounts.append("/media/preboot")


def normal(text):
    return re.sub(r"/tmp/tarnwick\.\w{6}/", "/tmp/tarnwick.TEMP/", STAMP.sub("STAMP", text))


class Result:
    def __init__(self, status, out, errors):
        self.status, self.raw, self.errors = status, out.decode(), errors.decode()
        self.console = normal(self.raw)
        stamp = STAMP.search(self.raw)
        self.stamp = stamp and stamp.group()
        log = f"/tmp/tarnwick-{self.stamp}.log"
        self.log = normal(read(log)) if os.path.isfile(log) and not os.path.islink(log) else None
        self.archive = f"/media/preboot/tarnwick/tarnwick-{self.stamp}.qvx"

    def temporary(self):
        """The archive as it was written, before its copy into the store."""
        return re.search('^Captured data to "(.*)"$', self.raw, re.MULTILINE).group(1)


class Story:
    """What a run says. The tellers stand in the order of a capture; each scenario strings them together."""

    def __init__(self, world, verbose=False):
        self.world, self.verbose = world, verbose
        self.console, self.log, self.logging = "", "", False
        self.files = []

    # Single lines.
    def say(self, text):
        self.console += text

    def line(self, prefix, text, shown):
        if self.logging:
            self.log += f"{prefix}{text}\n"
        self.console += shown

    def info(self, text):
        self.line("INFO: ", text, text + "\n")

    def warning(self, text):
        self.line("WARNING: ", text, f"WARNING: {text}\n")

    def trace(self, text):
        self.line("TRACE: ", text, f"TRACE: {text}\n" if self.verbose else "")

    def command(self, line, out="", status=0):
        self.trace(f"Running command: '{line}'")
        self.trace(f"result: {status << 8}")
        self.trace(f"stdout: {out}")

    def fatal(self, message):
        self.say(f"{message}\nFATAL ERROR: {message}\n\n")

    # The steps of a capture.
    def opening(self, config="/media/spec.plist", noninteractive=False, log='"/tmp/tarnwick-STAMP.log"'):
        if noninteractive:
            self.say("Non-Interactive mode: encrypted and/or unconsented volumes will be skipped\n")
        self.say(f'using external config: "{config}"\n' if config else "using internal config\n")
        self.say(f"{INTRODUCTION}Logging to {log}\n")
        self.logging = log != '""'

    def destination(self):
        self.command('volctl info -plist "Preboot"', self.world.preboot)

    def folder(self):
        self.info(f'Capturing to temp folder: "{FOLDER}"')

    def listing(self):
        self.command("volctl zkfs listGroups -plist", self.world.groups)

    def query(self, volume, out=None):
        self.command(f'volctl info -plist "{volume.device}"', volume.info if out is None else out)

    def planned(self, *volumes):
        self.listing()
        for volume in volumes:
            self.query(volume)
            self.query(volume)
            self.trace(f"adding volume '{volume.device}' ({volume.uuid}) to capture plan")

    def until_volumes(self, *volumes, **opening):
        self.opening(**opening)
        self.destination()
        self.folder()
        self.planned(*volumes)

    def processing(self, volume):
        self.info(f"\nNow processing volume {volume.label}")
        self.trace("Checking user consent...")

    def consent(self, volume, verdict="GRANTED", seed="", prompt="", agreed=None):
        """`prompt` is all that the dialogue writes; `agreed` what came of it, None where nobody was asked."""
        self.trace(f"checking consent for {volume.mount_point}")
        self.trace(f"filesystem {seed}consent for {volume.mount_point} is {verdict}")
        self.say(prompt)
        if agreed is not None:
            self.trace(f"ad-hoc consent for {volume.mount_point} is " + ("GRANTED" if agreed else "EXPLICITLY DENIED"))
        self.info("\n")

    def denied(self, volume):
        self.info(f"explicit denial of consent on '{volume.name}', skipping...")

    def search(self, base, directive, *found, out=None, status=0, dialect=""):
        """One directive whose base directory exists, and what is found there; `out` where that is not what comes."""
        self.heading(directive)
        command = f"find \"{base}\" -type f {dialect}-regex '{directive[1]}'"
        self.trace(f"search command: {command}")
        self.command(command, "".join(path + "\n" for path in found) if out is None else out, status)
        if status:
            self.warning("search command returned an error, skipping this capture directive")
            return
        for path in found:
            self.trace(f"capturing: {path}")
        self.files += found

    def heading(self, directive):
        base, expression, description = directive
        self.info(f"Capturing: {description}")
        for text in ("#" * 32, f"DocString: {description}", f"BasePath: {base}", f"Expression: {expression}"):
            self.trace(text)

    def absent(self, directive):
        self.heading(directive)
        self.trace("BasePath does not exist on the target volume, skipping...")

    def finished(self, volume):
        self.info(f"Finished processing volume {volume.label}")

    def granted(self, volume, *searches):
        """A volume whose file grants consent; `searches` tell its directives as (directive, found paths...)."""
        self.processing(volume)
        self.consent(volume)
        self.files = []
        for directive, *found in searches:
            self.search(volume.mount_point + directive[0], directive, *found)
        self.finished(volume)

    def firmware(self, status=0):
        self.info("\nFinished with all volumes.")
        self.trace(f"nvram command: nvram -p >> {FOLDER}/nvram.txt")
        self.command(f"nvram -p >> {FOLDER}/nvram.txt", "", status)
        if status:
            self.warning("nvram command returned an error, skipping this capture directive")
        else:
            self.files.append(f"{FOLDER}/nvram.txt")
        self.info("Files to capture:")
        for path in self.files:
            self.info(path)
        self.logging = False

    def archived(self):
        self.info(f'Captured data to "{FOLDER}/tarnwick-STAMP.qvx"')

    def stored(self, *pruned):
        self.destination()
        if pruned:
            self.warning(PRUNING)
        for path in pruned:
            self.warning(f"pruning {path}")
        self.destination()
        self.info('final archive copied to "/media/preboot/tarnwick/tarnwick-STAMP.qvx"')
        self.say(COMPLETION)

    def ending(self, *pruned):
        self.firmware()
        self.archived()
        self.stored(*pruned)

    def archive_entries(self):
        return self.files + [f"{FOLDER}/tarnwick-STAMP.log"]


class Scenario(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.world = World()
        self.addCleanup(self.machine_is_untouched)
        self.addCleanup(self.world.close)

    def machine_is_untouched(self):
        machine = World.entered[0]
        self.assertEqual(machine.look(), machine.before)

    def check(self, result, story, status=0, errors=""):
        self.assertEqual(result.errors, errors)
        self.assertEqual(result.console, story.console)
        self.assertEqual(result.log, story.log if story.log else None)
        self.assertEqual(result.status, status)

    def check_archive(self, result, story):
        self.assertEqual(self.world.entries(result.archive), story.archive_entries())


def main():
    unittest.main(verbosity=2)
